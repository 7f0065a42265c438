/* Every interleaving of the writer and the reader of a bridge's ring, and of a control thread that removes a
   track while the leader's cycles run.

   The ring holds ROOM numbered frames. Checked faults: both sides access the same place at once, and a
   frame is repeated, out of order or corrupted. Loads of a counter may be stale: the side that only reads
   a counter takes a snapshot first and uses it later.

   The leader makes its cycle number odd before it reads the track; control removes the track before it
   reads the number. Checked fault: the track is freed while the leader uses it. */

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
        :: else -> skip                     /* no room: the cycle is skipped */
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
    :: mark % 2 == 1 -> cycle != mark       /* waits for the end of that cycle */
    :: else
    fi;
    freed = true
}

init {
    atomic { run writer(); run reader(); run leader(); run control() }
}
