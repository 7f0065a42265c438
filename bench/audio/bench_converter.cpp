// What does the converter add to a device cycle of 512 frames, with two input and two output channels, for
// clients with other frame counts and rates? A cycle at 48 kHz lasts 10.7 million nanoseconds.

#include "Contest.h"
#include "DXRAudioConverter.h"

#include <cmath>

namespace {

/// A client that only copies its two channels, as every node must.
class Mover final : public DXRConverterNode {
public:
    static CXRef<DXRConverterNode> init(std::vector<float>& frames, bool isInput)
    {
        return CXRef<DXRConverterNode>::adopt(new Mover(frames, isInput));
    }
    std::vector<uint32_t> usageMap() const override { return {1, 2}; }
    void performIOWithSampleTime(uint64_t, const DXRChannelEntry* samples, uint64_t) override
    {
        for (size_t c = 0; c < 2; ++c)
            for (size_t k = 0; k < _frames.size() / 2; ++k) {
                float& device = samples[c].samples[k * samples[c].stride];
                float& own = _frames[2 * k + c];
                if (_isInput)
                    own = device;
                else
                    device = own;
            }
    }

private:
    Mover(std::vector<float>& frames, bool isInput) : _frames(frames), _isInput(isInput) {}
    ~Mover() override = default;
    std::vector<float>& _frames;
    const bool _isInput;
};

} // namespace

int main()
{
    constexpr uint32_t deviceFrames = 512, counts[2] = {2, 2};
    FigureTable table("converter: ns per device cycle of 512 frames at 48 kHz, 2 in and 2 out");
    for (const double rate : {48000.0, 44100.0}) {
        std::vector<float> in(2 * deviceFrames, 0.25F), out(2 * deviceFrames);
        const DXRChannelEntry inputs[2] = {{in.data(), 2}, {in.data() + 1, 2}},
                              outputs[2] = {{out.data(), 2}, {out.data() + 1, 2}};
        const DXRChannelEntry* const samples[2] = {inputs, outputs};
        std::vector<std::vector<float>> frames;
        for (const uint32_t count : {480U, 441U, 256U, 64U})
            frames.emplace_back(2 * count);
        Contest contest;
        uint64_t time = 0;
        for (std::vector<float>& held : frames) {
            const DXRAudioConverter::Nodes nodes[2] = {{Mover::init(held, true)}, {Mover::init(held, false)}};
            const auto count = static_cast<uint32_t>(held.size() / 2);
            const auto converter =
                DXRAudioConverter::initWithNodes(nodes, counts, 48000, rate, deviceFrames, count);
            contest.add(std::to_string(count) + " frames", [&time, &samples, converter] {
                converter->performIOWithSampleTime(&time, samples);
                return uint64_t{1};
            });
        }
        table.addColumn(std::to_string(static_cast<int>(rate)) + " Hz", contest.names(), contest.run());
    }
    table.print("", 0);
}
