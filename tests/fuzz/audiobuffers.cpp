// Audio descriptions and buffers: what a platform delivers, through the entry that all of them use.
//
// An input is several deliveries: flags, the description, the count of frames, the sizes of the buffers, their bytes.
#include "fuzztarget.h"
#include "recorderaudiocapture_p.h"
#include "referenceaudio.h"

#include <memory>
#include <optional>

namespace {

constexpr qint64 mostFrames = 256; // of a delivery that is taken; a reference counts them one by one
constexpr std::size_t mostBuffers = 4;
constexpr int mostDeliveries = 4;

enum Flag : uint8_t {
    Invalid = 1,
    Undescribed = 2,
    OtherFormat = 4,
    WithoutList = 8,
    Refused = 16, ///< with a count of frames that no chunk has
};

/// None, fewer, or more than a chunk can count.
qint64 refusedFrames(uint32_t number)
{
    constexpr qint64 tooMany = qint64(std::numeric_limits<qint32>::max()) + 1;
    return number % 2 ? tooMany + (qint64(number) << 30) : -qint64(number);
}

/// One delivery, with memory of its own, so that a byte beyond it is noticed.
struct Delivery {
    explicit Delivery(fuzz::Input& input);

    uint8_t flags;
    platform::AudioStreamDescription description;
    std::vector<std::unique_ptr<uint8_t[]>> memory;
    std::vector<platform::AudioBuffer> buffers;
    platform::AudioSampleBuffer buffer;
};

Delivery::Delivery(fuzz::Input& input) : flags(input.take<uint8_t>())
{
    description.formatFlags = input.take<uint32_t>();
    description.bytesPerFrame = input.take<uint32_t>();
    description.channelsPerFrame = input.take<uint32_t>();
    description.bitsPerChannel = input.take<uint32_t>();
    if (flags & OtherFormat)
        description.formatId = input.take<uint32_t>();
    if (!(flags & Undescribed))
        buffer.description = description;
    buffer.valid = !(flags & Invalid);
    const auto frames = input.take<uint32_t>();
    buffer.frames = flags & Refused ? refusedFrames(frames) : 1 + frames % mostFrames;
    const std::size_t count = input.take<uint8_t>() % (mostBuffers + 1);
    for (std::size_t i = 0; i < count; ++i) {
        const auto size = input.take<uint16_t>();
        const auto bytes = input.takeBytes(size);
        auto& own = memory.emplace_back(std::make_unique_for_overwrite<uint8_t[]>(bytes.size()));
        std::copy(bytes.begin(), bytes.end(), own.get());
        buffers.push_back({size == 0 ? nullptr : own.get(), bytes.size()});
    }
    buffer.bufferList = [this]() -> std::optional<platform::AudioBufferList> {
        if (flags & WithoutList)
            return std::nullopt;
        return platform::AudioBufferList{buffers, nullptr};
    };
}

void checkSamples(const RecorderAudioCapture::Chunk& chunk, const Delivery& delivery)
{
    fuzz::require(chunk.frames == delivery.buffer.frames, "a chunk has the delivered frames");
    fuzz::require(chunk.pcm.size() == qsizetype(chunk.frames) * 4, "a frame has four bytes");
    const auto* bytes = reinterpret_cast<const unsigned char*>(chunk.pcm.constData());
    for (qint64 i = 0; i < qint64(chunk.frames) * 2; ++i, bytes += 2) {
        const auto sample = qint16(bytes[0] | bytes[1] << 8);
        fuzz::require(sample == referenceSample(delivery.description, i / 2, i % 2, delivery.buffers),
            "samples are as the rules say");
    }
}

void run(fuzz::Input input)
{
    static auto* const entry = new RecorderAudioCapturePrivate{QString()};
    static RecorderAudioCapture capture{std::unique_ptr<RecorderAudioCapturePrivate>(entry)};
    entry->unsupportedFormatLogged = false;
    for (int i = 0; i < mostDeliveries && !input.isEmpty(); ++i) {
        const Delivery delivery(input);
        entry->handleAudioSampleBuffer(&delivery.buffer);
        const QList<RecorderAudioCapture::Chunk> chunks = capture.readAvailable();
        const bool isPcm = delivery.buffer.description && delivery.description.formatId == platform::linearPcm;
        const bool isTaken = delivery.buffer.valid && isPcm && !(delivery.flags & (WithoutList | Refused));
        fuzz::require(chunks.size() == qsizetype(isTaken), "one chunk for a delivery that can be read");
        if (isTaken)
            checkSamples(chunks.first(), delivery);
    }
}

const fuzz::Target audioBuffers{"audiobuffers", run,
    {"macOS ScreenCaptureKit audio sample has unsupported format.",
        "macOS ScreenCaptureKit shareable content lookup failed:"}};

}

ORVANTIS_FUZZ_TARGET(audioBuffers)
