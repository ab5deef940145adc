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
 * the loop calls it again at once, and 0 when there was not. */
typedef int (*qel_poller_fn)(void* argument);

/* Has the main loop call `poller` with `argument` in every round, in order of registration.
 * Registering the same pair again has no effect. A poller that is registered by another poller
 * joins the round in progress. There is no way to unregister one. Returns 0, or nonzero for a null
 * poller. Call it on the thread of the main loop; a poller may do so. */
int qel_mainloop_reg_poller(qel_poller_fn poller, void* argument);

/* Runs rounds until qel_mainloop_stop is called. After a round in which a poller returned 1, the
 * next round follows at once; otherwise it follows after a pause, which grows from 1 ms to 9 ms
 * while there is nothing to do. A stop request ends exactly one run and is then used up. It ends
 * the run in progress, or else the next one, which then calls no poller. Requests made until then
 * count as one. */
void qel_mainloop_run(void);

/* Requests the end of qel_mainloop_run after the round in progress. Safe in a signal handler and
 * from any thread. The signal cuts a pause in progress short; a request from another thread does
 * not. */
void qel_mainloop_stop(void);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
