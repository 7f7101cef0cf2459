#pragma once

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** What can be made to fail. faults.py has the same names in the same order. */
enum FaultyCall {
    CallNone,
    CallOpen,
    CallRead,
    CallWrite,
    CallLog, /* a write to standard error */
    CallClose,
    CallSpawn,
    CallPipe,
    CallMap,
    CallSocket,
    CallConnect,
    CallSend,
    CallReceive,
    CallPoll,
    CallRename,
    CallMakeNode,
    CallRemove,
    CallSync,
    CallThread,
    CallAllocate,
    CallStatus,
    CallCount
};

/** Counts the call; true if it is to fail, with errno set. Any thread, a signal handler too. */
bool FaultFails(enum FaultyCall call);

/** How many nanoseconds a clock is ahead of the real one, as clock_gettime names clocks. */
int64_t FaultSkew(int clock);

#ifdef __cplusplus
}
#endif
