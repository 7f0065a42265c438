/* A bridge's ring with its two sides, and a track that control takes away from the leader's cycle, every interleaving.

   The ring holds ROOM frames, each a number; what is written, or read, while the other side may touch the same place
   is the fault looked for, as is a frame that comes twice, out of order or not as written. Loads of a counter may be
   old: the side that only reads one takes a snapshot first and uses it later.

   The leader marks its cycle odd before it looks for the track; control takes the track out before it looks at the
   mark. A track that is freed while the leader uses it is the fault. */

#define ROOM 2
#define FRAMES 4

byte written = 0, readTo = 0;
byte place[ROOM] = 0;
bool writing[ROOM], reading[ROOM];

proctype writer()
{
    byte seen, at;
    do
    :: written < FRAMES ->
        seen = readTo;                      /* acquire */
        if
        :: written - seen < ROOM ->
            at = written % ROOM;
            atomic { assert(!reading[at]); writing[at] = true };
            place[at] = written + 1;
            atomic { writing[at] = false; written++ } /* release */
        :: else -> skip                     /* no room: that cycle is left out */
        fi
    :: written == FRAMES -> break
    od
}

proctype reader()
{
    byte seen, at, next;
    do
    :: next < FRAMES ->
        seen = written;                     /* acquire */
        do
        :: next < seen ->
            at = next % ROOM;
            atomic { assert(!writing[at]); reading[at] = true };
            assert(place[at] == next + 1);
            atomic { reading[at] = false; next++ }
        :: else -> break
        od;
        readTo = next                       /* release */
    :: next == FRAMES -> break
    od
}

bool live = true, freed = false;
byte cycle = 0;                             /* odd while the leader's cycle runs */

proctype leader()
{
    byte cycles;
    bool found;
    do
    :: cycles < 3 ->
        cycle++;
        found = live;
        if
        :: found -> assert(!freed); skip; assert(!freed)
        :: else
        fi;
        cycle++;
        cycles++
    :: cycles == 3 -> break
    od
}

proctype control()
{
    byte mark;
    live = false;
    mark = cycle;
    if
    :: mark % 2 == 1 -> cycle != mark       /* waits until it has moved on */
    :: else
    fi;
    freed = true
}

init {
    atomic { run writer(); run reader(); run leader(); run control() }
}
