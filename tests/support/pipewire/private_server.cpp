// Runs a private server with a microphone and two sinks, for tests in other languages. Prints its remote
// name, and exits when its standard input is closed.
#include "PrivateServer.h"
#include "TestClient.h"

#include <iostream>

int main()
{
    const PrivateServer server;
    TestClient devices(server.remote());
    devices.plug({.name = "mic", .mediaClass = "Audio/Source/Virtual", .channelCount = 1});
    devices.plug({.name = "one"});
    devices.plug({.name = "two"});
    std::cout << server.remote() << std::endl;
    std::cin.get();
}
