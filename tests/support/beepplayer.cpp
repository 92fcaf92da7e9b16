// BeepPlayer: a stream of PipeWire whose samples know their time.
#include "beepplayer.h"

#include "cyclewatch.h"
#include "truthbeeps.h"

#include <pipewire/pipewire.h>
#include <spa/param/audio/format-utils.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <ctime>
#include <limits>

namespace {

constexpr std::uint32_t rate = 48000;
constexpr std::uint32_t channels = 2;
constexpr std::uint32_t bytesPerFrame = channels * sizeof(float);
constexpr int waitLimitSeconds = 20; // until audio flows

qint64 nanoseconds(clockid_t clock)
{
    timespec time{};
    clock_gettime(clock, &time);
    return qint64(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
}

/// How far the wall clock is ahead of the monotonic clock, on which the graph's clock is. Nanoseconds.
qint64 wallClockLead()
{
    qint64 lead = 0;
    qint64 shortest = std::numeric_limits<qint64>::max();
    // The shortest of a few attempts was not interrupted.
    for (int i = 0; i < 4; ++i) {
        const qint64 before = nanoseconds(CLOCK_MONOTONIC);
        const qint64 wall = nanoseconds(CLOCK_REALTIME);
        const qint64 took = nanoseconds(CLOCK_MONOTONIC) - before;
        if (took < shortest) {
            shortest = took;
            lead = wall - before - took / 2;
        }
    }
    return lead;
}

}

struct BeepPlayer::Impl {
    QString error;
    pw_thread_loop* loop = nullptr;
    pw_context* context = nullptr;
    pw_stream* stream = nullptr;
    const spa_io_position* position = nullptr; // the graph's clock; set while the data thread does not run
    spa_hook hook{};
    CycleWatch watch;
    std::atomic<bool> flows = false;

    void start(const QByteArray& name);
    bool connect(const QByteArray& name);
    bool waitUntilItFlows();
    void fillBuffer();

    static void onProcess(void* self) { static_cast<Impl*>(self)->fillBuffer(); }
    static void onIo(void* self, std::uint32_t id, void* area, std::uint32_t);
};

void BeepPlayer::Impl::onIo(void* self, std::uint32_t id, void* area, std::uint32_t)
{
    if (id == SPA_IO_Position)
        static_cast<Impl*>(self)->position = static_cast<const spa_io_position*>(area);
}

/// On PipeWire's data thread, once a cycle.
void BeepPlayer::Impl::fillBuffer()
{
    pw_buffer* const buffer = pw_stream_dequeue_buffer(stream);
    if (!buffer)
        return;
    spa_data& data = buffer->buffer->datas[0];
    std::uint32_t frames = data.maxsize / bytesPerFrame;
    if (buffer->requested)
        frames = std::min(frames, std::uint32_t(buffer->requested));
    const spa_io_clock clock = position ? position->clock : spa_io_clock{}; // the next cycle overwrites it
    const qint64 startNs = (position ? qint64(clock.nsec) : nanoseconds(CLOCK_MONOTONIC)) + wallClockLead();
    // The low 32 bits of the milliseconds, and the rest of a millisecond.
    const double startMs = double(quint32(startNs / 1'000'000)) + double(startNs % 1'000'000) / 1e6;
    auto* const samples = static_cast<float*>(data.data);
    for (std::uint32_t i = 0; i < frames; ++i)
        std::fill_n(samples + i * channels, channels, truthbeeps::sample(startMs + i * 1000.0 / rate));
    data.chunk->offset = 0;
    data.chunk->stride = bytesPerFrame;
    data.chunk->size = frames * bytesPerFrame;
    pw_stream_queue_buffer(stream, buffer);
    watch.cycleDone(clock);
    flows = true;
}

bool BeepPlayer::Impl::connect(const QByteArray& name)
{
    static const pw_stream_events events = [] {
        pw_stream_events handlers{};
        handlers.version = PW_VERSION_STREAM_EVENTS;
        handlers.io_changed = onIo;
        handlers.process = onProcess;
        return handlers;
    }();
    // With a data thread that runs in real time where the system allows it: a late one would leave a beep out.
    context = pw_context_new(pw_thread_loop_get_loop(loop),
        pw_properties_new(PW_KEY_APP_NAME, name.constData(), PW_KEY_CONFIG_NAME, "client-rt.conf", nullptr), 0);
    pw_core* const core = context ? pw_context_connect(context, nullptr, 0) : nullptr;
    if (!core)
        return false;
    stream = pw_stream_new(core, name.constData(),
        pw_properties_new(PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY, "Playback", PW_KEY_APP_NAME,
            name.constData(), PW_KEY_NODE_NAME, name.constData(), nullptr));
    if (!stream)
        return false;
    pw_stream_add_listener(stream, &hook, &events, this);
    std::array<std::uint8_t, 1024> memory;
    spa_pod_builder builder{};
    builder.data = memory.data();
    builder.size = std::uint32_t(memory.size());
    spa_audio_info_raw info{};
    info.format = SPA_AUDIO_FORMAT_F32;
    info.rate = rate;
    info.channels = channels;
    info.position[0] = SPA_AUDIO_CHANNEL_FL;
    info.position[1] = SPA_AUDIO_CHANNEL_FR;
    const spa_pod* format = spa_format_audio_raw_build(&builder, SPA_PARAM_EnumFormat, &info);
    return pw_stream_connect(stream, PW_DIRECTION_OUTPUT, PW_ID_ANY,
               pw_stream_flags(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS | PW_STREAM_FLAG_RT_PROCESS),
               &format, 1)
        >= 0;
}

bool BeepPlayer::Impl::waitUntilItFlows()
{
    const timespec moment{0, 20'000'000};
    for (int i = 0; i < waitLimitSeconds * 50 && !flows; ++i)
        nanosleep(&moment, nullptr);
    return flows;
}

void BeepPlayer::Impl::start(const QByteArray& name)
{
    pw_init(nullptr, nullptr);
    loop = pw_thread_loop_new("beeps", nullptr);
    if (!loop || pw_thread_loop_start(loop) < 0) {
        error = QStringLiteral("no thread for the audio");
        return;
    }
    pw_thread_loop_lock(loop);
    const bool connected = connect(name);
    pw_thread_loop_unlock(loop);
    if (!connected)
        error = QStringLiteral("no audio server");
    else if (!waitUntilItFlows())
        error = QStringLiteral("the audio server plays nothing");
}

BeepPlayer::BeepPlayer(const QString& applicationName) : impl_(std::make_unique<Impl>())
{
    impl_->start(applicationName.toUtf8());
}

BeepPlayer::~BeepPlayer()
{
    if (impl_->loop)
        pw_thread_loop_stop(impl_->loop);
    if (impl_->stream)
        pw_stream_destroy(impl_->stream);
    if (impl_->context)
        pw_context_destroy(impl_->context);
    if (impl_->loop)
        pw_thread_loop_destroy(impl_->loop);
    pw_deinit();
}

QString BeepPlayer::errorString() const
{
    return impl_->error;
}

QByteArray BeepPlayer::newGaps()
{
    QByteArray lines;
    while (const auto gap = impl_->watch.takeGap())
        lines += "gap " + QByteArray::number(double(gap->startNs) / 1e6, 'f', 3) + ' '
            + QByteArray::number(double(gap->lengthNs) / 1e6, 'f', 3) + '\n';
    return lines;
}
