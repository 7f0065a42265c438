// Installs the library as a user would, and builds and runs programs with only the installed files.

#include "ContentOf.h"
#include "Eventually.h"
#include "PrivateServer.h"
#include "TestClient.h"

#include <gtest/gtest.h>
#include <sndfile.h>

#include <cstdio>

namespace {

namespace fs = std::filesystem;

class Package : public testing::Test {
protected:
    /// Runs a shell command in the folder, which must succeed, and returns its output.
    std::string run(const std::string& command) const
    {
        return client.run("cd " + folder.string() + " && (" + command + ") 2>&1");
    }
    /// Waits until the file has this text.
    static bool waitForText(const fs::path& path, const std::string& text)
    {
        return eventually([&] { return contentOf(path).find(text) != std::string::npos; });
    }

    const PrivateServer server;
    const fs::path folder = server.folder();
    // Set before a client connects, because the environment overrides a client's remote.
    const int isNamed = setenv("PIPEWIRE_REMOTE", server.remote().c_str(), 1);
    TestClient client{server.remote()};
};

TEST_F(Package, buildsAndRunsTheExamplesOnTheInstalledLibraryAlone)
{
    // Installs into a staging folder and uses it from there: no file may depend on the final location.
    run("make -C " DXR_SOURCE_DIR " --no-print-directory -o release install BUILD_DIR=" DXR_BUILD_DIR
        " PREFIX=/opt/dxr DESTDIR=" +
        (folder / "stage").string());
    const std::string prefix = folder / "stage/opt/dxr";
    run(prefix + "/bin/dxr --version");
    fs::copy(DXR_SOURCE_DIR "/examples", folder / "examples");
    run("cmake -S examples -B built -DCMAKE_PREFIX_PATH=" + prefix +
        " -DCMAKE_CXX_COMPILER='" DXR_COMPILER "' -DCMAKE_CXX_FLAGS='" DXR_SANITIZER_FLAGS
        "' && cmake --build built -j2");
    const std::string flags = "$(PKG_CONFIG_PATH=" + prefix + "/" DXR_LIBRARY_FOLDER "/pkgconfig pkg-config ";
    run(DXR_COMPILER " " DXR_SANITIZER_FLAGS " -std=c++20 examples/list_devices.cpp -o by-pkg-config " +
        flags + "--cflags --libs dxr) -Wl,-rpath," + prefix + "/" DXR_LIBRARY_FOLDER);

    EXPECT_EQ(run("./by-pkg-config"), "No audio devices.\n");
    run("built/play_on_two; test $? = 1");
    run("built/record_while_playing x.wav; test $? = 1");
    run("built/test_without_hardware");

    client.plug({.name = "in", .mediaClass = "Audio/Source/Virtual", .channelCount = 1});
    FILE* const follower =
        popen(("cd " + folder.string() + " && built/follow_hot_plug > followed").c_str(), "w");
    EXPECT_TRUE(waitForText(folder / "followed", "present      input  Virtual in\n"));
    client.plug({.name = "one", .properties = {{"node.description", "First \x1B[2J"}}});
    client.plug({.name = "two"});
    EXPECT_TRUE(waitForText(folder / "followed", "connected    output Virtual two\n"));
    const std::string list = run("built/list_devices");
    EXPECT_NE(list.find("output    2 ch     48000 Hz  First \\x1B[2J"), std::string::npos) << list;
    EXPECT_NE(list.find("input     1 ch     48000 Hz  Virtual in"), std::string::npos) << list;
    const std::string played = run("built/play_on_two 0.3");
    EXPECT_NE(played.find("Playing on Virtual two\n"), std::string::npos) << played;
    run(prefix + "/bin/dxr set in --default && " + prefix + "/bin/dxr set two --default");
    run("built/record_while_playing recording.wav");
    SF_INFO info{};
    SNDFILE* const recording = sf_open((folder / "recording.wav").c_str(), SFM_READ, &info);
    EXPECT_TRUE(recording && info.frames == 3 * 48000 && info.channels == 1 && info.samplerate == 48000);
    sf_close(recording);

    client.unplug("two");
    EXPECT_TRUE(waitForText(folder / "followed", "disconnected output Virtual two\n"));
    EXPECT_EQ(pclose(follower), 0) << "ends with its input";
}

} // namespace
