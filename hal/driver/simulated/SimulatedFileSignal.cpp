#include "SimulatedSignal.h"

#include "LogSink.h"
#include "SerialQueue.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <sndfile.h>
#include <span>
#include <vector>

namespace {

struct CloseFile {
    void operator()(SNDFILE* file) const noexcept { sf_close(file); }
};
using SoundFile = std::unique_ptr<SNDFILE, CloseFile>;

void tell(std::string* error, const std::string& reason)
{
    if (error)
        *error = reason;
}

struct Samples {
    std::vector<float> interleaved;
    uint32_t channelCount = 0;
    uint64_t frameCount = 0;
};

/// What a sink keeps back, and where it goes; touched by the IO thread in turn with the queue, never at once.
class FileWriter : public CXObject {
public:
    explicit FileWriter(std::string path) : _path(std::move(path)) {}

    void add(uint32_t channelCount, double sampleRate, std::span<const float> samples)
    {
        _waiting.insert(_waiting.end(), samples.begin(), samples.end());
        if (_waiting.size() >= size_t{channelCount} * static_cast<size_t>(sampleRate)) // a second's worth
            flush(channelCount, sampleRate);
    }

    void flush(uint32_t channelCount, double sampleRate)
    {
        if (_waiting.empty())
            return;
        auto batch = std::make_shared<std::vector<float>>(std::exchange(_waiting, {}));
        _queue->async([self = CXRef(this), batch, channelCount, sampleRate] {
            self->_write(channelCount, sampleRate, *batch);
        });
    }

    void waitUntilWritten()
    {
        _queue->sync([this] {
            if (_file)
                sf_write_sync(_file.get());
        });
    }

private:
    void _write(uint32_t channelCount, double sampleRate, const std::vector<float>& samples)
    {
        if (!_file && !_hasFailed) {
            SF_INFO info{};
            info.channels = static_cast<int>(channelCount);
            info.samplerate = static_cast<int>(sampleRate);
            info.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
            _channelCount = channelCount;
            _file.reset(sf_open(_path.c_str(), SFM_WRITE, &info));
        }
        if (_hasFailed ||
            channelCount != _channelCount) // a file has one format: what comes in another is dropped
            return;
        const auto frames = static_cast<sf_count_t>(samples.size() / channelCount);
        if (!_file || sf_writef_float(_file.get(), samples.data(), frames) != frames) {
            platform::LogSink::log("Cannot write " + _path + ": " + sf_strerror(_file.get()));
            _hasFailed = true;
            _file.reset();
        }
    }

    const std::string _path;
    const CXRef<platform::SerialQueue> _queue = platform::SerialQueue::initWithLabel("dxr-wav");
    std::vector<float> _waiting; // IO thread
    SoundFile _file;             // queue, as is the rest
    uint32_t _channelCount = 0;
    bool _hasFailed = false;
};

} // namespace

SimulatedSource simulatedFileSource(const std::string& path, std::string* error)
{
    SF_INFO info{};
    const SoundFile file(sf_open(path.c_str(), SFM_READ, &info));
    if (!file) {
        tell(error, path + ": " + sf_strerror(nullptr));
        return nullptr;
    }
    auto content = std::make_shared<Samples>();
    content->channelCount = static_cast<uint32_t>(info.channels);
    std::vector<float> block(size_t{4096} *
                             content->channelCount); // the header's length is not to be believed
    while (const sf_count_t frames = sf_readf_float(file.get(), block.data(), 4096)) {
        content->interleaved.insert(content->interleaved.end(), block.begin(),
                                    block.begin() + frames * static_cast<sf_count_t>(content->channelCount));
        content->frameCount += static_cast<uint64_t>(frames);
    }
    if (content->frameCount == 0) {
        tell(error, path + ": no audio in it");
        return nullptr;
    }
    return [content](uint64_t firstFrame, uint32_t frameCount, uint32_t channelCount, double /*rate*/,
                     float* samples) {
        const uint32_t shared = std::min(channelCount, content->channelCount);
        for (uint32_t frame = 0; frame < frameCount; ++frame) {
            float* out = samples + size_t{frame} * channelCount;
            const float* in = content->interleaved.data() +
                              (firstFrame + frame) % content->frameCount * content->channelCount;
            std::fill(std::copy_n(in, shared, out), out + channelCount, 0.0F);
        }
    };
}

SimulatedSink simulatedFileSink(const std::string& path, std::string* error)
{
    if (FILE* probe = std::fopen(path.c_str(), "wb"); !probe || std::fclose(probe) != 0) {
        tell(error, path + ": " + std::strerror(errno));
        return nullptr;
    }
    return [writer = CXRef<FileWriter>::adopt(new FileWriter(path))](
               uint64_t /*firstFrame*/, uint32_t frameCount, uint32_t channelCount, double sampleRate,
               const float* samples) {
        if (samples) {
            writer->add(channelCount, sampleRate, {samples, size_t{frameCount} * channelCount});
        } else {
            writer->flush(channelCount, sampleRate);
            writer->waitUntilWritten();
        }
    };
}
