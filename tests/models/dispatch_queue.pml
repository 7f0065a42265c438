/* Every interleaving of the threads that push to the dispatch queue's stack or drain it: the queue's thread
   with one timer and, selected by -DWITH_..., a producer with two items, a bypass that stops after one
   pass, a bypass that drains the queue, and a cancellation that ends the thread. One thread at a time owns
   the right to drain.

   Accesses to state that only the owner can read or change are one step; each access to shared state is a
   separate step.

   -DFAULT_... removes one protection, which makes the model fail:
     FAULT_FINISHED_ELSEWHERE   a borrower runs the step that ends the thread
     FAULT_UNHEARD_WAIT         a thread gives the right up without checking if the queue's thread waits
     FAULT_CLOSED_UNDRAINED     the thread ends without checking for a last signal

   Checked faults: two threads own the right at once, two signals are pending, an item is lost, run twice
   or run before an earlier one, and a thread waits forever. */

#define NUL 0
#define MARK 1
#define A 2                 /* items of the producer, in lane 1 */
#define B 3
#define ONCE 4              /* items of the bypasses, in lane 0 */
#define WHOLE 5
#define FINISH 6            /* in lane 1; runs only on the queue's thread */

byte head = NUL;
byte next[7];
bool signalled, closed, threadWaits, finished;
byte owner = 0;
byte ran[7];
byte fires = 0;
byte done = 0;
byte threadId;              /* of the queue's thread */
bool threadEnded;
chan lane0 = [4] of { byte };
chan lane1 = [4] of { byte };

#define me (_pid + 1)

inline become_owner() { atomic { assert(owner == 0); owner = me } }

/* Runs an item; only the owner may. */
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

/* Moves all items from the stack to the lanes, oldest first. Items below the head belong to this thread. */
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

/* Sets `mayGoOn` to false if the next item must run on another thread. */
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

/* Called by the owner with empty lanes. Afterwards `isGone` is true, or this thread still owns the right. */
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

/* Called with the right while no thread is marked as owner. Passes the right to the queue's thread, or takes
   it back if that thread has ended. */
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

/* Called by the owner. Whether it takes new arrivals before a pass is left open: both are explored. */
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

/* An asynchronous push. A push to an idle queue acquires the right, which passes to the queue's thread; if
   that has ended, this thread drains the queue. */
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
       ran[item] == 1 /* waits for the reply */
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
       /* Asleep. Only a signal or the timer wakes the thread: it does not check `finished` here. */
end_asleep:
       if
       :: atomic { signalled -> signalled = false; become_owner() };
          run_until_idle(flag)
       :: !signalled && fires == 0 /* the timer is due: polls instead of sleeping */
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
        run canceller(); expected = expected + 2 /* the canceller and the thread */
#endif
    };
    done == expected;
    (head == NUL); /* waits: the thread may still be releasing the right */
    assert(len(lane0) + len(lane1) == 0);
#ifdef WITH_PRODUCER
    assert(ran[A] == 1 && ran[B] == 1);
#endif
#ifdef WITH_CANCEL
    assert(ran[FINISH] == 1)
#endif
}
