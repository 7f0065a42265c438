#pragma once

#include <string>
#include <vector>

/// Draws a run of audio as an SVG picture: the levels of input and output over time, and below them which
/// devices were there and what happened to them. Threads: one.
class RunPicture {
public:
    /// The peaks of the channels at a moment, 1.0 being full scale.
    void addLevels(double seconds, std::vector<float> input, std::vector<float> output);
    /// A device that is there from now on, until deviceGone().
    void deviceCame(double seconds, const std::string& uid, const std::string& name);
    void deviceGone(double seconds, const std::string& uid);
    /// Something that happened to a device, in a few words; one without a lane is not drawn.
    void note(double seconds, const std::string& uid, const std::string& what);

    /// The whole picture of a run of `seconds`, with `title` and a line of `results` above. Texts may be
    /// anything.
    std::string svg(double seconds, const std::string& title, const std::string& results) const;

private:
    struct Levels {
        double seconds;
        std::vector<float> input, output;
    };
    struct Presence {
        double from;
        double to; // negative while it is there
    };
    struct Note {
        double seconds;
        std::string what;
    };
    struct Lane {
        std::string uid, name;
        std::vector<Presence> presences;
        std::vector<Note> notes;
    };

    Lane* _lane(const std::string& uid);
    std::string _levelPanel(size_t channel, double top, double seconds) const;
    std::string _lanePanel(const Lane& lane, double top, double seconds) const;

    std::vector<Levels> _levels;
    std::vector<Lane> _lanes; // in the order the devices came
};
