/* Every interleaving of the cycles of an IO callback, on the device's IO thread, with start and stop, which
   run as work of a runner's queue. They share `unsafe` and `turn`, the state of a cycle that waits for the
   queue.

   The queue is modelled as a lock that every thread with work for it takes. The device is a lock that is
   held during a cycle: destroying a callback and setting a rate wait for it, as they may with real
   hardware.

   Checked faults: nodes run after stop, or in a context or with buffers that no longer exist; a callback
   is destroyed twice or never; a thread waits forever. */

#define CYCLES 3

byte unsafe = 1;            /* raised by start, which is in progress */
bool queue = false;         /* whether a thread runs work of the queue */
bool inCycle = false;       /* the device is in a cycle */
byte ended = 0;             /* how often the callback was destroyed */
bool stopped = false;       /* stop has returned to its caller */
bool contextIsThere = true;
bool keeper = false;        /* the context lives until the callback is destroyed */
bool buffersAreThere = false;
bool farewell = false;      /* another thread must destroy the callback */
bool turnPending = false;   /* the cycle's work is in the queue */
bool isOver = false;

mtype = { NONE, WAITING, RUNNING, DONE, ABANDONED };
mtype turn = NONE;

/* Steps (3) and (4) of DXRAudioIOContext.h, as work of the queue; `claimed`: the cycle still waits. */
inline take_turn(claimed)
{
    atomic { before = unsafe; unsafe-- };
    if
    :: before >= 2 -> assert(contextIsThere); farewell = true
    :: before == 1 && claimed -> assert(contextIsThere && !stopped && buffersAreThere);
#ifdef WITH_NEW_LAYOUT
        if
        :: unsafe++; keeper = true; farewell = true
        :: true
        fi
#endif
    :: else
    fi
}

proctype io()
{
    byte before, i = 0;
    do
    :: i < CYCLES && ended == 0 ->
        i++;
        /* A destroyed callback is no longer called. */
        atomic { if :: ended == 0 -> inCycle = true; buffersAreThere = true :: else -> break fi };
        if
        :: unsafe != 0 -> skip
        :: atomic { unsafe == 0 -> unsafe = 1 };
            assert(contextIsThere); /* the cycle reads the context's rate */
            if
            :: atomic { !queue -> queue = true }; take_turn(true); queue = false
            :: atomic { queue -> turn = WAITING }; /* busy */
                turnPending = true;
                if
                :: unsafe >= 2 -> if :: atomic { turn == WAITING -> turn = ABANDONED } :: else fi
                :: else
                fi;
                do
                :: turn == DONE || turn == ABANDONED -> break
#ifdef WITH_PATIENCE_THAT_ENDS
                :: atomic { turn == WAITING -> turn = ABANDONED }; break
#endif
                od
            fi
        fi;
        atomic { buffersAreThere = false; inCycle = false }
    :: else -> break
    od;
    isOver = true
}

/* The queue's thread, which runs the work of waiting cycles. */
proctype worker()
{
    byte before;
    bool claimed;
    do
    :: turnPending ->
        atomic { !queue -> queue = true };
        turnPending = false;
        if
        :: atomic { turn == WAITING -> turn = RUNNING; claimed = true }
        :: else -> claimed = false
        fi;
        take_turn(claimed);
        if
        :: claimed -> turn = DONE
        :: else
        fi;
        queue = false
    :: farewell -> /* runs on a thread that no cycle waits for */
        farewell = false;
        !inCycle;
        atomic { ended++; assert(ended == 1) };
        if
        :: keeper -> keeper = false; contextIsThere = false
        :: else
        fi
    :: isOver && ended > 0 && !turnPending && !farewell -> break
    od
}

/* The end of start, then a stop, both as work of the queue. Work after the stop may wait for the device. */
proctype control()
{
    byte before;
    queue = true;   /* start holds the queue before the first cycle */
    unsafe--;
    queue = false;

    atomic { !queue -> queue = true };
    if
    :: ended > 0 || keeper || unsafe > 1 -> skip /* already ended for a new layout: nothing to stop */
    :: else ->
        atomic { before = unsafe; unsafe++ };
        if
        :: before == 0 -> !inCycle; atomic { ended++; assert(ended == 1) }; contextIsThere = false
        :: else ->
            if
            :: atomic { turn == WAITING -> turn = ABANDONED }
            :: else
            fi;
            keeper = true
        fi
    fi;
    stopped = true;
    if              /* such as a restart or a change of rate */
    :: !inCycle
    :: true
    fi;
    queue = false
}

init {
    atomic { run io(); run worker(); run control() };
    (_nr_pr == 1);
    assert(ended == 1 && !contextIsThere && !queue)
}
