/* Every interleaving of two readers and two writers on one lock-free reference.

   Objects are numbers with a reference count; an object is destroyed when its count reaches 0. Checked
   faults: use of a destroyed object, and a final count that differs from the references still held. One
   exchange, one load and one change of a count are one step each; the generation is wide enough not to
   wrap here. */

#define NONE 255
#define SLOTS 3
#define OBJECTS 3                       /* 0 is the initial object, 1 and 2 are the writers' */

byte generation = 0, index = 0, readers = 0; /* the packed word */
byte slot[SLOTS] = NONE;
byte count[OBJECTS] = 0;
byte finished = 0;

inline retain(o) { d_step { assert(count[o] > 0); count[o]++ } }
inline release(o) { d_step { assert(count[o] > 0); count[o]-- } }

/* Finds the current object and counts the caller as its reader; `found` is NONE if the reference is empty. */
inline enter(wg, wi, wr, found)
{
    do
    :: atomic { wg = generation; wi = index; wr = readers };
       if
       :: wi == NONE -> found = NONE; wr = 0; break
       :: else -> found = slot[wi];
           if
           :: atomic { generation == wg && index == wi && readers == wr -> readers++; wr = 0 }; break
           :: else
           fi
       fi
    od
}

inline leave(wg, wi, r, found)
{
    do
    :: atomic { r = readers;
                if
                :: generation != wg || index != wi -> r = NONE
                :: else
                fi };
       if
       :: r == NONE -> atomic { release(found); r = 0 }; break
       :: else ->
           assert(r > 0);
           if
           :: atomic { generation == wg && index == wi && readers == r -> readers--; r = 0 }; break
           :: else
           fi
       fi
    od
}

proctype reader()
{
    byte wg, wi, r, found;
    enter(wg, wi, r, found);
    if
    :: found != NONE -> retain(found); leave(wg, wi, r, found);
       assert(count[found] > 0); release(found)
    :: else
    fi;
    finished++
}

/* Replaces the current object by `object`, or clears the reference if NONE; retries when another writer is
   faster. */
proctype writer(byte object)
{
    byte wg, wi, r, old, fresh;
    bool done = false;
again:
    /* Finds the current object as a reader does. Both outcomes of its comparison with the expected object are
       explored: equal, or another object, which costs another round. */
    enter(wg, wi, r, old);
#ifdef WITH_OTHERS
    if
    :: old != NONE -> leave(wg, wi, r, old); old = 0; wg = 0; wi = 0; goto again
    :: true
    fi;
#endif
    if
    :: old != NONE -> retain(old)
    :: else
    fi;

    fresh = NONE;
    if
    :: object != NONE ->
        retain(object);
        /* Finding and claiming a free slot is one step: which slot it is does not matter. */
        atomic {
            fresh = 0;
            do
            :: slot[fresh] != NONE -> fresh++; assert(fresh < SLOTS)
            :: else -> slot[fresh] = object; break
            od
        }
    :: else
    fi;

    do
    :: atomic { r = readers;
                if
                :: generation != wg || index != wi -> r = NONE
                :: else
                fi };
       if
       :: r == NONE -> break
       :: else ->
           if
           :: old != NONE -> atomic { assert(r > 0 && count[old] > 0); count[old] = count[old] + r - 1 }
           :: else
           fi;
           if
           :: atomic { generation == wg && index == wi && readers == r ->
                       generation++; index = fresh; readers = 0 };
              done = true; break
           :: else ->
               if
               :: old != NONE -> atomic { assert(count[old] >= r); count[old] = count[old] - (r - 1) }
               :: else
               fi
           fi
       fi
    od;

    if
    :: done && old != NONE -> slot[wi] = NONE
    :: !done && object != NONE -> atomic { slot[fresh] = NONE; release(object) }
    :: else
    fi;
    if
    :: old != NONE -> release(old); release(old)
    :: else
    fi;
    atomic { old = 0; fresh = 0; r = 0; wg = 0; wi = 0 };
    if
    :: !done -> goto again
    :: else
    fi;
    if
    :: object != NONE -> release(object) /* the writer's own reference */
    :: else
    fi;
    finished++
}

init {
    atomic {
        slot[0] = 0; count[0] = 1;
        count[1] = 1; count[2] = 1;
        run reader(); run reader();
        run writer(1);
        run writer(SECOND) /* 2, or NONE to clear the reference */
    };
    finished == 4;
    assert(readers == 0);
    byte o = 0;
    do
    :: o < OBJECTS ->
        /* The current object is alive, and so is object 2 if no writer was given it. */
        assert(count[o] == ((index != NONE && slot[index] == o) || (o == 2 && SECOND == NONE)));
        o++
    :: else -> break
    od
}
