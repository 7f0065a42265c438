#include "SimulatedMachine.h"

#include "SimulatedDevice.h"

CXRef<SimulatedMachine> SimulatedMachine::init(bool isStepped)
{
    return CXRef<SimulatedMachine>::adopt(new SimulatedMachine(isStepped));
}

SimulatedMachine::SimulatedMachine(bool isStepped) : scheduler(isStepped) {}

SimulatedMachine::~SimulatedMachine() = default;
