/* The handshake between the cycles of an IO callback, on the device's IO thread, and start and stop, as work of a
   runner's queue, every interleaving. Between them: `unsafe`, and the turn of a cycle that waits.

   The queue is a lock that threads with work for it take; nothing else of it matters here. The device is a lock too,
   held through a cycle: ending a callback and setting a rate wait for it, as hardware may.

   Looked for: nodes run after stop, or by a context or with buffers that are gone; a callback ended twice or never;
   and anybody waiting without end. */

#define CYCLES 3

byte unsafe = 1;            /* raised by start, which is under way */
bool queue = false;         /* whether somebody runs as its work */
bool inCycle = false;       /* the device is in a cycle */
byte ended = 0;             /* how often the callback was ended */
bool stopped = false;       /* stop has returned to its caller */
bool contextIsThere = true;
bool keeper = false;        /* the context is left to the cycle that ends the callback */
bool buffersAreThere = false;
bool farewell = false;      /* the end of the callback is left to another thread */
bool turnPending = false;   /* the cycle's work is on its way in the queue */
bool isOver = false;

mtype = { NONE, WAITING, RUNNING, DONE, ABANDONED };
mtype turn = NONE;

/* As work of the queue: (3) and (4). */
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
        /* A callback that is ended is not called any more. */
        atomic { if :: ended == 0 -> inCycle = true; buffersAreThere = true :: else -> break fi };
        if
        :: unsafe != 0 -> skip
        :: atomic { unsafe == 0 -> unsafe = 1 };
            assert(contextIsThere); /* it reads the rate */
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

/* The queue's thread, for work that a cycle has left there. */
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
    :: farewell -> /* on a thread that no cycle waits for */
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

/* start goes on, and then a stop, all as work of the queue; what follows it may wait for the device, as a restart. */
proctype control()
{
    byte before;
    queue = true;   /* start, before any cycle can know */
    unsafe--;
    queue = false;

    atomic { !queue -> queue = true };
    if
    :: ended > 0 || keeper || unsafe > 1 -> skip /* a new layout has ended it: nothing to stop */
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
    if              /* a device may be started anew, or set to another rate */
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
