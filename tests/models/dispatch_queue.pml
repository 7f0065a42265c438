/* The dispatch queue's stack and the right to drain it, every interleaving: the queue's thread with one timer
   and, as chosen with -DWITH_..., a producer with two items, a bypass that stops after one pass, one that goes on,
   and a cancellation that ends the thread.

   What only the thread with the right can see or change is one step; every look at what others change is its own.

   Looked for: two threads with the right at once, two signals under way, an item lost or run twice or before
   one that came first, and a thread that waits for ever. */

#define NUL 0
#define MARK 1
#define A 2                 /* the producer's, lane 1 */
#define B 3
#define ONCE 4              /* the bypasses', lane 0 */
#define WHOLE 5
#define FINISH 6            /* lane 1 */

byte head = NUL;
byte next[7];
bool signalled, closed, threadWaits, finished;
byte owner = 0;
byte ran[7];
byte fires = 0;
byte done = 0;
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

/* Everything on the stack moves to the lanes, the oldest first. What hangs below the head is nobody else's. */
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

inline run_pass()
{
    atomic {
        do
        :: nempty(lane0) -> lane0?i; run_item(i)
        :: empty(lane0) -> break
        od;
        if
        :: nempty(lane1) -> lane1?i; run_item(i)
        :: empty(lane1)
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
       if
       :: threadWaits ->
           if
           :: atomic { head == NUL -> head = MARK };
              atomic {
                  signal(isGone);
                  if
                  :: !isGone -> become_owner()
                  :: else
                  fi
              }
           :: else
           fi
       :: else
       fi
    :: else -> isGone = false
    fi
}

/* As the owner. The thread looks for urgent work before a pass or does not: both are tried. */
inline run_until_idle(isGone)
{
    do
    :: atomic { (len(lane0) + len(lane1) == 0 || head > MARK) -> take_arrivals() };
       if
       :: atomic { len(lane0) + len(lane1) > 0 -> run_pass() }
       :: len(lane0) + len(lane1) == 0 -> give_up(isGone);
           if
           :: isGone -> break
           :: !isGone
           fi
       fi
    :: atomic { len(lane0) + len(lane1) > 0 -> run_pass() }
    od;
    isGone = false
}

inline hand_over(isGone)
{
    owner = 0;
    signal(isGone);
    if
    :: !isGone -> become_owner(); run_until_idle(isGone)
    :: isGone
    fi
}

inline stop_early(isGone)
{
    isGone = false;
    if
    :: len(lane0) + len(lane1) == 0 -> give_up(isGone)
    :: len(lane0) + len(lane1) > 0
    fi;
    if
    :: !isGone -> hand_over(isGone)
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
           :: item == ONCE -> take_arrivals(); run_pass(); stop_early(flag)
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
end_asleep:
    do
    :: finished -> break
    :: !finished && fires == 0 -> /* the timer is due */
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
    :: atomic { !finished && signalled -> signalled = false; become_owner() };
       run_until_idle(flag)
    od;
    atomic { flag = signalled; closed = true };
    if
    :: flag -> become_owner(); run_until_idle(flag)
    :: else
    fi;
    done++
}

byte expected = 0;

init {
    atomic {
        run thread();
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
