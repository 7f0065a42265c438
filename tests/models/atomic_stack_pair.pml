/* Every interleaving of threads that each take a block from a pair of stacks and return it. There are as many
   blocks as threads, so a thread that holds none must always get one.

   Checked faults: a block is given to two threads or lost, or a pop finds none although a block was on the
   stacks throughout. */

#define NUL 0

byte first[2];              /* each head is a block and the count of pops */
byte pops[2];
byte next[THREADS + 1];     /* link of each block; any thread may read it at any time */
byte owner[THREADS + 1];
byte finished = 0;

#define me (_pid + 1)

/* Pops a block from one stack; NUL if it was empty. */
inline pop(s, b)
{
    do
    :: count = pops[s];
       b = first[s];
       if
       :: b == NUL -> break
       :: else -> link = next[b];
           if
           :: atomic { first[s] == b && pops[s] == count -> first[s] = link; pops[s]++ }; break
           :: else
           fi
       fi
    od;
    count = 0; link = 0
}

/* The choice of stack only affects speed: the results must be correct with either. */
inline choose(s)
{
    if
    :: s = 0
    :: s = 1
    fi
}

proctype thread()
{
    byte side = 0, block, seen, count, link, i;
    do
    :: i == TIMES -> break
    :: else -> i++;
       choose(side);
       pop(side, block);
       do
       :: block != NUL -> break
       :: else -> seen = pops[side];
           pop(side, block);
           if
           :: block == NUL ->
               pop(1 - side, block);
               if
               :: block != NUL -> side = 1 - side
               :: else ->
                   if
                   :: first[side] == NUL -> assert(pops[side] != seen) /* a block was always there */
                   :: else
                   fi
               fi
           :: else
           fi;
           seen = 0
       od;
       atomic { assert(owner[block] == 0); owner[block] = me };
       next[block] = me + 100; /* the owner may overwrite its block */
       owner[block] = 0;
       choose(side);
       do
       :: link = first[side];
          next[block] = link;
          if
          :: atomic { first[side] == link -> first[side] = block }; break
          :: else -> side = 1 - side
          fi
       od;
       block = 0; link = 0
    od;
    finished++
}

init {
    byte k = 1;
    atomic {
        first[0] = 1;
        first[1] = 2;
        do
        :: k + 2 <= THREADS -> next[k] = k + 2; k++
        :: else -> break
        od;
        k = 0;
        do
        :: k < THREADS -> run thread(); k++
        :: else -> break
        od
    };
    finished == THREADS;
    k = 0;
    do
    :: first[0] != NUL -> first[0] = next[first[0]]; k++
    :: first[1] != NUL -> first[1] = next[first[1]]; k++
    :: first[0] == NUL && first[1] == NUL -> break
    od;
    assert(k == THREADS)
}
