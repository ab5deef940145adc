// The request to end the program, from a signal or from within.
#pragma once

// Has SIGINT and SIGTERM request a stop, and writes to a closed pipe fail with EPIPE.
void catch_signals();

// Ends the main loop after the round in progress.
void request_stop();
bool stop_requested();

// No signal interrupts what follows a stop any more.
void finish_stop();
