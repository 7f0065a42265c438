/* The dispatch queue's stack and the right to drain it, every interleaving: the queue's thread with one timer
   and, as chosen with -DWITH_..., a producer with two items, a bypass that stops after one pass, one that goes on,
   and a cancellation that ends the thread.

   What only the thread with the right can see or change is one step; every look at what others change is its own.

   -DFAULT_... leaves one protection out, and the promise that it keeps is then broken:
     FAULT_FINISHED_ELSEWHERE   a borrower runs the step that ends the thread
     FAULT_UNHEARD_WAIT         the thread that gives the right up does not look whether the queue's thread waits
     FAULT_CLOSED_UNDRAINED     the thread ends without a look at the signal that came last

   Looked for: two threads with the right at once, two signals under way, an item lost or run twice or before
   one that came first, and a thread that waits forever. */

#define NUL 0
#define MARK 1
#define A 2                 /* the producer's, lane 1 */
#define B 3
#define ONCE 4              /* the bypasses', lane 0 */
#define WHOLE 5
#define FINISH 6            /* lane 1, for the queue's thread only */

byte head = NUL;
byte next[7];
bool signalled, closed, threadWaits, finished;
byte owner = 0;
byte ran[7];
byte fires = 0;
byte done = 0;
byte threadId;              /* the queue's thread */
bool threadEnded;
chan lane0 = [4] of { byte };
chan lane1 = [4] of { byte };

#define me (_pid + 1)

inline become_owner() { atomic { assert(owner == 0); owner = me } }

/* Runs an item, which must be by the owner. */
inline run_item(i)
{
    atomic {
        assert(owner == me && ran[i] == 0);
        assert(i != B || ran[A] == 1);
        ran[i]++;
        if
        :: i == FINISH -> finished = true
        :: else
        fi
    }
}

inline push(i, isIdle)
{
    do
    :: h = head; next[i] = h;
       if
       :: atomic { head == h -> head = i }; break
       :: else
       fi
    od;
    isIdle = (h == NUL);
    h = 0
}

inline signal(isSent)
{
    atomic {
        if
        :: closed -> isSent = false
        :: else -> assert(!signalled); signalled = true; isSent = true
        fi
    }
}

/* Everything on the stack moves to the lanes, the oldest first. What hangs below the head is this thread's. */
inline take_arrivals()
{
    d_step {
        h = head; head = MARK; k = 0;
        do
        :: h == NUL || h == MARK -> break
        :: else -> i = next[h]; next[h] = k; k = h; h = i
        od;
        do
        :: k == 0 -> break
        :: (k == ONCE || k == WHOLE) -> lane0!k; k = next[k]
        :: else -> lane1!k; k = next[k]
        od;
        h = 0; k = 0; i = 0
    }
}

#ifdef FAULT_FINISHED_ELSEWHERE
#define is_for_another_thread false
#else
#define is_for_another_thread (lane1?[FINISH] && me != threadId && !threadEnded)
#endif

/* `mayGoOn` is false when the item that is next is for another thread. */
inline run_pass(mayGoOn)
{
    atomic {
        do
        :: nempty(lane0) -> lane0?i; run_item(i)
        :: empty(lane0) -> break
        od;
        mayGoOn = !is_for_another_thread;
        if
        :: nempty(lane1) && mayGoOn -> lane1?i; run_item(i)
        :: empty(lane1) || !mayGoOn
        fi;
        i = 0
    }
}

/* As the owner with empty lanes. Afterwards either the right is gone or this thread owns it still. */
inline give_up(isGone)
{
    if
    :: atomic { head == MARK -> head = NUL; owner = 0 };
       isGone = true;
#ifndef FAULT_UNHEARD_WAIT
       if
       :: threadWaits ->
           if
           :: atomic { head == NUL -> head = MARK };
              pass_on(isGone)
           :: else
           fi
       :: else
       fi
#endif
    :: else -> isGone = false
    fi
}

/* With the right, not the owner: it goes to the thread, or is taken back when that has ended. */
inline pass_on(isGone)
{
    atomic {
        signal(isGone);
        if
        :: !isGone -> become_owner()
        :: else
        fi
    }
}

/* As the owner. The thread looks for urgent work before a pass or does not: both are tried. */
inline run_until_idle(isGone)
{
    do
    :: atomic { (len(lane0) + len(lane1) == 0 || head > MARK) -> take_arrivals() };
       if
       :: len(lane0) + len(lane1) > 0
       :: len(lane0) + len(lane1) == 0 -> give_up(isGone);
           if
           :: isGone -> break
           :: !isGone
           fi
       fi
    :: atomic { len(lane0) + len(lane1) > 0 -> run_pass(isGone) };
       if
       :: !isGone -> owner = 0; pass_on(isGone); /* handed over */
           if
           :: isGone -> break
           :: !isGone
           fi
       :: isGone
       fi
    od;
    isGone = false
}

inline stop_early(isGone)
{
    isGone = false;
    if
    :: len(lane0) + len(lane1) == 0 -> give_up(isGone)
    :: len(lane0) + len(lane1) > 0
    fi;
    if
    :: !isGone -> owner = 0; pass_on(isGone);
        if
        :: !isGone -> run_until_idle(isGone)
        :: isGone
        fi
    :: else
    fi;
    isGone = false
}

/* An asynchronous push; the right may come with it, and goes to the thread or, when that has ended, is used. */
inline dispatch(i_)
{
    push(i_, flag);
    if
    :: flag -> signal(flag);
        if
        :: !flag -> become_owner(); run_until_idle(flag)
        :: else
        fi
    :: else
    fi;
    flag = false
}

proctype producer()
{
    byte h, i, k;
    bool flag;
    dispatch(A);
    dispatch(B);
    done++
}

proctype canceller()
{
    byte h, i, k;
    bool flag;
    dispatch(FINISH);
    done++
}

proctype bypass(byte item)
{
    byte h, i, k;
    bool flag;
    if
    :: atomic { head == NUL -> head = MARK; become_owner(); run_item(item) };
       if
       :: item == ONCE -> stop_early(flag)
       :: else -> run_until_idle(flag)
       fi
    :: else ->
       push(item, flag);
       if
       :: flag -> become_owner();
           if
           :: item == ONCE -> take_arrivals(); run_pass(flag); stop_early(flag)
           :: else -> run_until_idle(flag)
           fi
       :: else
       fi;
       ran[item] == 1 /* the reply */
    fi;
    done++
}

proctype thread()
{
    byte h, i, k;
    bool flag;
    do
    :: finished -> break
    :: else ->
       /* Asleep. Only a signal or the timer ends it: it does not look whether the queue is finished. */
end_asleep:
       if
       :: atomic { signalled -> signalled = false; become_owner() };
          run_until_idle(flag)
       :: !signalled && fires == 0 /* the timer is due: a look, and no sleep */
       fi;
       if
       :: fires == 0 ->
           if
           :: atomic { head == NUL -> head = MARK }
           :: else ->
               threadWaits = true;
               if
               :: atomic { head == NUL -> head = MARK }
               :: else -> atomic { signalled -> signalled = false }
               fi;
               threadWaits = false
           fi;
           atomic { become_owner(); fires++ };
           run_until_idle(flag)
       :: else
       fi
    od;
    threadEnded = true;
    atomic { flag = signalled; closed = true };
#ifndef FAULT_CLOSED_UNDRAINED
    if
    :: flag -> become_owner(); run_until_idle(flag)
    :: else
    fi;
#endif
    done++
}

byte expected = 0;

init {
    atomic {
        threadId = run thread() + 1;
#ifdef WITH_PRODUCER
        run producer(); expected++;
#endif
#ifdef WITH_ONCE
        run bypass(ONCE); expected++;
#endif
#ifdef WITH_WHOLE
        run bypass(WHOLE); expected++;
#endif
#ifdef WITH_CANCEL
        run canceller(); expected = expected + 2 /* and the thread */
#endif
    };
    done == expected;
    (head == NUL); /* the thread may be giving it up */
    assert(len(lane0) + len(lane1) == 0);
#ifdef WITH_PRODUCER
    assert(ran[A] == 1 && ran[B] == 1);
#endif
#ifdef WITH_CANCEL
    assert(ran[FINISH] == 1)
#endif
}
