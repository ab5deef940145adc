/*
 * qel_frame.h - the main loop of the agent framework (libqelframe).
 *
 * The agent's one thread calls qel_mainloop_run, which calls the registered pollers over and over.
 */
#ifndef QEL_FRAME_H
#define QEL_FRAME_H

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/* Does a bounded piece of work without blocking. Returns 1 when there was something to do, so that
 * the loop calls again at once, and 0 when there was not. */
typedef int (*qel_poller_fn)(void* argument);

/* Has the main loop call `poller` with `argument` in every round, in order of registration. The
 * same pair registered again stays one registration. One that is registered by a poller joins the
 * round in progress. There is no way to take it back. Returns 0, or nonzero for a null poller.
 * Main-loop thread, also from inside a poller. */
int qel_mainloop_reg_poller(qel_poller_fn poller, void* argument);

/* Runs rounds until qel_mainloop_stop: another round at once after one in which a poller returned
 * 1, otherwise after a pause that grows from 1 ms to 9 ms while there is nothing to do. A stop
 * request ends exactly one run, which uses it up: the run in progress, or without one the next,
 * which then calls no poller. Requests before that count as one. */
void qel_mainloop_run(void);

/* Requests the end of qel_mainloop_run after the round in progress. Safe in a signal handler and
 * from any thread; a pause in progress is cut short by the signal, and is waited for otherwise. */
void qel_mainloop_stop(void);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
