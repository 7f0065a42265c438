#include "CommaLocale.h"
#include "DXRBuffer.h"
#include "DXRRangedStream.h"

#include <limits>

namespace {

CXRef<DXRRangedStream> aRangedStream(double rate, double minimum, double maximum)
{
    AudioStreamRangedDescription desc = DXRRangedStream::init()->desc();
    desc.format.sampleRate = rate;
    desc.sampleRateRange = {minimum, maximum};
    return DXRRangedStream::initWithDesc(&desc);
}

TEST(DXRValueRange, isDescribedAndContainsItsEnds)
{
    constexpr double notANumber = std::numeric_limits<double>::quiet_NaN();
    const auto described = [](double min, double max) {
        const CXRef<DXRValueRange> range = DXRValueRange::initWithMin(min, max);
        return std::tuple(range->description(), range->descriptionForSampleRate(), range->isValid());
    };
    EXPECT_EQ(described(44100, 44100), std::tuple("44100", "44.1kHz", true));
    EXPECT_EQ(described(8000, 192000), std::tuple("8000 - 192000", "8 - 192kHz", true));
    EXPECT_EQ(described(0, 48000), std::tuple("0 - 48000", "0 - 48kHz", false));
    EXPECT_EQ(described(96000, 48000), std::tuple("96000 - 48000", "96 - 48kHz", false));
    EXPECT_EQ(described(notANumber, notANumber), std::tuple("?", "?kHz", false));
    EXPECT_EQ(described(44100.04, 192000.5), std::tuple("44100 - 192000", "44.1 - 192kHz", true)); // 6 digits
    const std::vector<double> rates{96000, 48000, 44100, 32000, 31999.9, 88200};
    EXPECT_EQ(DXRValueRange::initWithMin(32000, 48000)->containedValues(rates),
              (std::vector<double>{48000, 44100, 32000}));
    EXPECT_TRUE(DXRValueRange::init()->isEqual(DXRValueRange::initWithValue(0).get()));
    EXPECT_FALSE(DXRValueRange::init()->isEqual(DXRValueRange::initWithValue(-0.0).get())) << "by bits";
    EXPECT_EQ(DXRValueRange::initWithMin(1, 1e19)->hash(), 1U ^ 10'000'000'000'000'000'000U);
}

// All three classes archive exactly their record's bytes, and restore only from that length.
template <class Type> void archivesItsRecord(const CXRef<Type>& object, size_t length)
{
    std::vector<std::byte> archive = object->archive();
    ASSERT_EQ(archive.size(), length);
    const CXRef<Type> again = Type::initWithArchive(archive);
    ASSERT_TRUE(again);
    EXPECT_TRUE(again->isEqual(object.get()));
    EXPECT_EQ(again->hash(), object->hash());
    EXPECT_FALSE(object->isEqual(nullptr));
    for (size_t i = 0; i < length; ++i) {
        std::vector<std::byte> other = archive;
        other[i] ^= std::byte{1};
        EXPECT_FALSE(Type::initWithArchive(other)->isEqual(object.get())) << "byte " << i;
    }
    archive.push_back({});
    EXPECT_FALSE(Type::initWithArchive(archive));
    archive.resize(length - 1);
    EXPECT_FALSE(Type::initWithArchive(archive));
    EXPECT_FALSE(Type::initWithArchive(std::nullopt));
}

TEST(Streams, areArchivedByteForByte)
{
    archivesItsRecord(DXRValueRange::initWithMin(8000, 192000), 16);
    archivesItsRecord(DXRBasicStream::init(), 40);
    archivesItsRecord(aRangedStream(0, 8000, 192000), 56);
    EXPECT_FALSE(DXRValueRange::initWithRange(nullptr));
    EXPECT_FALSE(DXRBasicStream::initWithDesc(nullptr));
    EXPECT_FALSE(DXRRangedStream::initWithDesc(nullptr));
    EXPECT_FALSE(DXRBasicStream::init()->isEqual(DXRRangedStream::init().get()));
}

// Also in a process that has called setlocale().
TEST(Streams, describeThemselvesShortlyInEveryLocale)
{
    const CommaLocale locale;
    const AudioStreamBasicDescription integer{48000, kAudioFormatLinearPCM, 12, 4, 1, 4, 2, 16, 0};
    AudioStreamBasicDescription flagged = integer;
    flagged.formatFlags |= 0x80000040;
    AudioStreamBasicDescription coded = flagged;
    coded.formatID = 0x61632D33;
    EXPECT_EQ(DXRBasicStream::init()->description(), "(44.1kHz, 2ch)");
    EXPECT_EQ(DXRBasicStream::initWithDesc(&integer)->description(), "(48kHz, 2ch, 16i/C)");
    EXPECT_EQ(DXRBasicStream::initWithDesc(&flagged)->descriptionWithoutChannelCount(2), "(48kHz, 16i/4C)");
    EXPECT_FALSE(DXRBasicStream::initWithDesc(&flagged)->isMixable());
    EXPECT_EQ(DXRBasicStream::initWithDesc(&coded)->description(), "(48kHz, 2ch, 'ac-3'/8000004C)");
    EXPECT_EQ(DXRBasicStream::initWithVirtualChannelCount(2, 48000)->descriptionWithoutChannelCount(2),
              "(48kHz)");
    EXPECT_EQ(DXRRangedStream::initWithVirtualChannelCount(2, 48000)->descriptionWithoutChannelCount(2),
              "48kHz");
    EXPECT_EQ(aRangedStream(0, 8000.5, 192000)->description(), "(8.0005 - 192kHz, 2ch)");
    EXPECT_NE(DXRBuffer::initWithSampleRate(44100.5, 8, 2)->description().find("@44100.5hz"),
              std::string::npos);
}

TEST(Streams, offerThePreferredRate)
{
    const struct {
        double rate, minimum, maximum, offered;
        bool takes48000;
    } rows[] = {
        {0, 8000, 192000, 44100, true},      {0, 8000, 22050, 8000, false},
        {48000, 8000, 192000, 48000, true},  {0, 44100.5, 96000, 48000, true},
        {44100, 8000, 192000, 44100, false}, {0, 50000, 96000, 88200, false},
    };
    for (const auto& row : rows) {
        const CXRef<DXRRangedStream> stream = aRangedStream(row.rate, row.minimum, row.maximum);
        EXPECT_EQ(stream->sampleRate(), row.offered);
        EXPECT_EQ(stream->basicStream()->sampleRate(), row.offered);
        EXPECT_EQ(stream->containsSampleRate(48000), row.takes48000);
        EXPECT_EQ(stream->containedSampleRates(std::vector<double>{48000}).size(), row.takes48000 ? 1U : 0U);
    }
}

} // namespace
