// The request to end the program, from a signal or from within.
#pragma once

// Makes SIGINT and SIGTERM request a stop, and writes to a closed pipe fail with EPIPE.
void catch_signals();

// Ends the main loop after the round in progress.
void request_stop();
bool stop_requested();

// From now on signals are ignored, so that none interrupts what follows a stop.
void finish_stop();
