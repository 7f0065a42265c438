/* A port's buffer that the loop removes and adds again while the audio thread has cycles
   (PipeWireDeviceIO::_removeBuffer, PipeWireIOPort::samples). Loads and stores are sequentially consistent.

   Checked faults: a cycle uses a buffer that is removed, or the loop waits for a cycle that never ends. */

#define CYCLES 3
#define REMOVALS 2

bool isOpen = true, usesBuffers = false;
bool isMapped = true; /* the buffer's memory */

proctype audioThread()
{
    byte i;
    bool seen;
    for (i : 1 .. CYCLES) {
#ifdef FAULT_READ_BEFORE
        seen = isOpen;
        usesBuffers = true;
#else
        usesBuffers = true;
        seen = isOpen;
#endif
        if
        :: seen -> assert(isMapped); assert(isMapped) /* it may be interrupted between two uses */
        :: else
        fi;
        usesBuffers = false
    }
}

proctype loop()
{
    byte i;
    for (i : 1 .. REMOVALS) {
        isOpen = false;
#ifndef FAULT_NO_WAIT
        !usesBuffers;
#endif
        isMapped = false;
        isMapped = true;
        isOpen = true
    }
}

init { atomic { run audioThread(); run loop() } }
