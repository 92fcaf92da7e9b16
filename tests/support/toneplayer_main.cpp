// toneplayer: plays a sine to PipeWire as an application of its own.
//
//   toneplayer [--frequency HZ] [--amplitude A] [--channels 1|2|6] [--format f32|f32p|s16] [--rate HZ]
//              [--name APPLICATION] [--schedule ON,OFF,ON...] [--seconds N] [--spread 0|1] [--anonymous N]
//              [--beat 0|1] [--claim PROCESS] [--target SINK]
//
// Spread over its channels, the audio has one, two, three... times the frequency in the first, second, third... one.
// With a beat, there is audio only in the first tenth of each second of the monotonic clock.
// Prints "playing" once samples flow, and before that and at every change "quantum FRAMES": how many frames the graph
// takes in a cycle; "latency MILLISECONDS": how long the server says that the audio takes to be heard; and
// "gap AT LENGTH" for what it left out itself because it was late, in milliseconds of the monotonic clock. Anonymous,
// it is connected as PipeWire's PulseAudio server is for its clients, so that the server does not know its process
// until it says so, N seconds after the start; with a claim it says from the start on that it is that process. The
// schedule is in seconds; the stream is paused in the OFF parts, keeps its phase over them, and goes on playing after
// the last part when that is an ON part. SIGUSR1 pauses it, SIGUSR2 lets it go on. Ends with 0 after N seconds or on
// SIGTERM or SIGINT, with 1 when the audio server refuses or goes, with 2 for a wrong command line.
#include "cyclewatch.h"

#include <pipewire/pipewire.h>
#include <spa/param/audio/format-utils.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

constexpr double pi = 3.14159265358979323846;

struct Options {
    double frequency = 440; // hertz
    double amplitude = 0.25; // 1 is full scale
    uint32_t channels = 2;
    uint32_t rate = 48000;
    spa_audio_format format = SPA_AUDIO_FORMAT_F32;
    std::string name = "toneplayer";
    std::string target; // the name of a sink; empty for the default
    std::vector<double> schedule{1e6}; // seconds on, off, on, ...
    double seconds = 1e6;
    bool spread = false;
    bool beat = false;
    std::optional<double> anonymous; // seconds
    std::optional<double> claim; // a process id
};

std::optional<double> positiveNumber(const std::string& text)
{
    std::istringstream stream(text);
    double number = 0;
    if (!(stream >> number) || !stream.eof() || number < 0)
        return std::nullopt;
    return number;
}

/// False when the name or the value makes no sense.
bool readOption(const std::string& name, const std::string& value, Options& options)
{
    static const std::map<std::string, spa_audio_format> formats{
        {"f32", SPA_AUDIO_FORMAT_F32}, {"f32p", SPA_AUDIO_FORMAT_F32P}, {"s16", SPA_AUDIO_FORMAT_S16}};
    if (name == "--name") {
        options.name = value;
        return !value.empty();
    }
    if (name == "--target") {
        options.target = value;
        return !value.empty();
    }
    if (name == "--format") {
        const auto format = formats.find(value);
        if (format != formats.end())
            options.format = format->second;
        return format != formats.end();
    }
    if (name == "--schedule") {
        std::istringstream parts(value);
        options.schedule.clear();
        for (std::string part; std::getline(parts, part, ',');)
            options.schedule.push_back(positiveNumber(part).value_or(-1));
        return !options.schedule.empty() && *std::min_element(options.schedule.begin(), options.schedule.end()) >= 0;
    }
    const std::optional<double> number = positiveNumber(value);
    if (name == "--frequency")
        options.frequency = number.value_or(0);
    else if (name == "--amplitude")
        options.amplitude = number.value_or(0);
    else if (name == "--channels")
        options.channels = uint32_t(number.value_or(0));
    else if (name == "--rate")
        options.rate = uint32_t(number.value_or(0));
    else if (name == "--spread")
        options.spread = number.value_or(0) != 0;
    else if (name == "--beat")
        options.beat = number.value_or(0) != 0;
    else if (name == "--anonymous")
        options.anonymous = number;
    else if (name == "--claim")
        options.claim = number;
    else if (name == "--seconds")
        options.seconds = number.value_or(0);
    else
        return false;
    return number.has_value();
}

std::optional<Options> readOptions(const std::vector<std::string>& arguments)
{
    Options options;
    for (std::size_t i = 0; i < arguments.size(); i += 2) {
        if (i + 1 == arguments.size() || !readOption(arguments[i], arguments[i + 1], options))
            return std::nullopt;
    }
    const bool sensible = (options.channels == 1 || options.channels == 2 || options.channels == 6)
        && options.rate >= 8000 && options.rate <= 192000;
    return sensible ? std::optional(options) : std::nullopt;
}

spa_audio_info_raw audioInfo(const Options& options)
{
    constexpr std::array<uint32_t, 6> surround{SPA_AUDIO_CHANNEL_FL, SPA_AUDIO_CHANNEL_FR, SPA_AUDIO_CHANNEL_FC,
        SPA_AUDIO_CHANNEL_LFE, SPA_AUDIO_CHANNEL_SL, SPA_AUDIO_CHANNEL_SR};
    spa_audio_info_raw info{};
    info.format = options.format;
    info.rate = options.rate;
    info.channels = options.channels;
    std::copy_n(surround.begin(), options.channels, info.position);
    if (options.channels == 1)
        info.position[0] = SPA_AUDIO_CHANNEL_MONO;
    return info;
}

/// The sine in any of the formats.
class Sine {
public:
    explicit Sine(const Options& options) : options_(options) { }

    uint32_t bytesPerFrame() const ///< of one data
    {
        const uint32_t sample = options_.format == SPA_AUDIO_FORMAT_S16 ? 2 : 4;
        return sample * (options_.format == SPA_AUDIO_FORMAT_F32P ? 1 : options_.channels);
    }

    /// startNs: of the first frame, by the monotonic clock.
    void fill(spa_buffer& buffer, uint32_t frames, int64_t startNs)
    {
        for (uint32_t i = 0; i < frames; ++i) {
            const int64_t inSecondNs = (startNs + i * SPA_NSEC_PER_SEC / options_.rate) % SPA_NSEC_PER_SEC;
            const bool silent = options_.beat && inSecondNs >= SPA_NSEC_PER_SEC / 10;
            if (silent)
                phase_ = 0;
            for (uint32_t channel = 0; channel < options_.channels; ++channel) {
                const double multiple = options_.spread ? channel + 1 : 1;
                set(buffer, i, channel, silent ? 0 : float(options_.amplitude * std::sin(multiple * phase_)));
            }
            phase_ = std::fmod(phase_ + 2 * pi * options_.frequency / options_.rate, 2 * pi);
        }
    }

private:
    void set(spa_buffer& buffer, uint32_t frame, uint32_t channel, float value) const
    {
        const uint32_t index = frame * options_.channels + channel;
        if (options_.format == SPA_AUDIO_FORMAT_F32P)
            static_cast<float*>(buffer.datas[channel].data)[frame] = value;
        else if (options_.format == SPA_AUDIO_FORMAT_F32)
            static_cast<float*>(buffer.datas[0].data)[index] = value;
        else
            static_cast<int16_t*>(buffer.datas[0].data)[index] = int16_t(std::lround(value * 32767));
    }

    const Options& options_;
    double phase_ = 0;
};

/// The stream and its times. Everything runs on the main loop but process(), which runs on PipeWire's data thread.
class Player {
public:
    explicit Player(const Options& options) : options_(options), sine_(options) { }
    ~Player();
    Player(const Player&) = delete;
    Player& operator=(const Player&) = delete;

    int run(); ///< the exit code

private:
    static void process(void* self) { static_cast<Player*>(self)->fillBuffer(); }
    static void ioChanged(void* self, uint32_t id, void* area, uint32_t size);
    static void stateChanged(void* self, pw_stream_state, pw_stream_state state, const char* error);
    void fillBuffer();
    bool connect();
    void setTimer(spa_source* timer, double seconds);
    void setActive(bool active);
    void nextPart();
    void report();
    void introduce();
    void end(int code);

    const Options& options_;
    Sine sine_;
    pw_main_loop* mainLoop_ = nullptr;
    pw_loop* loop_ = nullptr;
    pw_context* context_ = nullptr;
    pw_core* core_ = nullptr;
    pw_stream* stream_ = nullptr;
    spa_hook hook_{};
    CycleWatch watch_;
    spa_source* partTimer_ = nullptr;
    spa_source* news_ = nullptr; // event: something to report
    const spa_io_position* position_ = nullptr; // set while the data thread does not run
    std::atomic<uint64_t> quantum_{0};
    std::atomic<int> buffers_{0};
    std::atomic<int64_t> latencyMs_{-1};
    uint64_t reportedQuantum_ = 0;
    int64_t reportedLatencyMs_ = -1;
    bool announced_ = false;
    bool ended_ = false;
    bool failed_ = false;
    std::size_t part_ = 0; // of the schedule
};

Player::~Player()
{
    if (stream_)
        pw_stream_destroy(stream_);
    if (context_)
        pw_context_destroy(context_);
    if (mainLoop_)
        pw_main_loop_destroy(mainLoop_);
}

void Player::end(int code)
{
    if (ended_)
        return;
    ended_ = true;
    failed_ = code != 0;
    pw_main_loop_quit(mainLoop_);
}

void Player::stateChanged(void* self, pw_stream_state, pw_stream_state state, const char* error)
{
    auto* player = static_cast<Player*>(self);
    if (player->ended_ || (state != PW_STREAM_STATE_ERROR && state != PW_STREAM_STATE_UNCONNECTED))
        return;
    std::cerr << "toneplayer: " << (error ? error : "not connected") << std::endl;
    player->end(1);
}

void Player::ioChanged(void* self, uint32_t id, void* area, uint32_t)
{
    if (id == SPA_IO_Position)
        static_cast<Player*>(self)->position_ = static_cast<const spa_io_position*>(area);
}

void Player::report()
{
    const uint64_t quantum = quantum_;
    if (quantum != reportedQuantum_)
        std::cout << "quantum " << quantum << std::endl;
    reportedQuantum_ = quantum;
    const int64_t latency = latencyMs_;
    if (latency != reportedLatencyMs_)
        std::cout << "latency " << latency << std::endl;
    reportedLatencyMs_ = latency;
    if (!announced_ && buffers_ >= 2)
        std::cout << "playing" << std::endl;
    announced_ = buffers_ >= 2;
    while (const auto gap = watch_.takeGap())
        std::cout << std::fixed << "gap " << double(gap->startNs) / 1e6 << ' ' << double(gap->lengthNs) / 1e6
                  << std::endl;
}

void Player::fillBuffer()
{
    pw_buffer* buffer = pw_stream_dequeue_buffer(stream_);
    if (!buffer)
        return;
    const spa_io_clock clock = position_ ? position_->clock : spa_io_clock{}; // the next cycle overwrites it
    spa_buffer& data = *buffer->buffer;
    uint32_t frames = data.datas[0].maxsize / sine_.bytesPerFrame();
    if (buffer->requested)
        frames = std::min(frames, uint32_t(buffer->requested));
    sine_.fill(data, frames, int64_t(clock.nsec));
    for (uint32_t i = 0; i < data.n_datas; ++i) {
        data.datas[i].chunk->offset = 0;
        data.datas[i].chunk->stride = int32_t(sine_.bytesPerFrame());
        data.datas[i].chunk->size = frames * sine_.bytesPerFrame();
    }
    pw_stream_queue_buffer(stream_, buffer);
    pw_time time{};
    pw_stream_get_time_n(stream_, &time, sizeof(time));
    const int64_t latency = time.rate.denom ? time.delay * SPA_MSEC_PER_SEC * time.rate.num / time.rate.denom : 0;
    const bool otherQuantum = quantum_.exchange(clock.duration) != clock.duration;
    const bool changed = latencyMs_.exchange(latency) != latency || otherQuantum;
    const bool late = watch_.cycleDone(clock);
    if (++buffers_ == 2 || changed || late) // the first one is heard when the second is asked for
        pw_loop_signal_event(loop_, news_);
}

bool Player::connect()
{
    static const pw_stream_events events = [] {
        pw_stream_events handlers{};
        handlers.version = PW_VERSION_STREAM_EVENTS;
        handlers.state_changed = stateChanged;
        handlers.io_changed = ioChanged;
        handlers.process = process;
        return handlers;
    }();
    // With a data thread that runs in real time where the system allows it: a late one leaves audio out.
    pw_properties* properties = pw_properties_new(PW_KEY_APP_NAME, options_.name.c_str(), PW_KEY_CONFIG_NAME,
        "client-rt.conf", "support.dbus", "false", nullptr);
    if (options_.anonymous || options_.claim) {
        pw_properties_set(properties, PW_KEY_CLIENT_API, "pipewire-pulse");
        pw_properties_setf(properties, PW_KEY_APP_PROCESS_ID, "%ld", long(options_.claim.value_or(0)));
    }
    context_ = pw_context_new(loop_, properties, 0);
    core_ = context_ ? pw_context_connect(context_, nullptr, 0) : nullptr;
    pw_properties* description = pw_properties_new(PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY, "Playback",
        PW_KEY_APP_NAME, options_.name.c_str(), nullptr);
    if (!options_.target.empty())
        pw_properties_set(description, PW_KEY_TARGET_OBJECT, options_.target.c_str());
    stream_ = core_ ? pw_stream_new(core_, options_.name.c_str(), description) : nullptr;
    if (!stream_)
        return false;
    pw_stream_add_listener(stream_, &hook_, &events, this);
    std::array<uint8_t, 1024> memory;
    spa_pod_builder builder{};
    builder.data = memory.data();
    builder.size = uint32_t(memory.size());
    spa_audio_info_raw info = audioInfo(options_);
    const spa_pod* format = spa_format_audio_raw_build(&builder, SPA_PARAM_EnumFormat, &info);
    return pw_stream_connect(stream_, PW_DIRECTION_OUTPUT, PW_ID_ANY,
               pw_stream_flags(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS | PW_STREAM_FLAG_RT_PROCESS),
               &format, 1)
        >= 0;
}

void Player::setTimer(spa_source* timer, double seconds)
{
    const auto nanoseconds = int64_t(seconds * 1e9);
    timespec value{};
    value.tv_sec = time_t(nanoseconds / 1'000'000'000);
    value.tv_nsec = long(std::max<int64_t>(nanoseconds % 1'000'000'000, 1)); // 0 would disarm it
    pw_loop_update_timer(loop_, timer, &value, nullptr, false);
}

void Player::setActive(bool active)
{
    watch_.restart();
    pw_stream_set_active(stream_, active);
}

void Player::nextPart()
{
    if (part_ >= options_.schedule.size())
        return;
    setActive(part_ % 2 == 0);
    setTimer(partTimer_, options_.schedule[part_]);
    ++part_;
}

/// Says whose process it is.
void Player::introduce()
{
    const std::string pid = std::to_string(::getpid());
    const spa_dict_item item{PW_KEY_APP_PROCESS_ID, pid.c_str()};
    const spa_dict properties{0, 1, &item};
    pw_core_update_properties(core_, &properties);
}

int Player::run()
{
    mainLoop_ = pw_main_loop_new(nullptr);
    loop_ = pw_main_loop_get_loop(mainLoop_);
    for (int signal : {SIGTERM, SIGINT})
        pw_loop_add_signal(
            loop_, signal, [](void* self, int) { static_cast<Player*>(self)->end(0); }, this);
    for (int signal : {SIGUSR1, SIGUSR2})
        pw_loop_add_signal(
            loop_, signal, [](void* self, int number) { static_cast<Player*>(self)->setActive(number == SIGUSR2); },
            this);
    partTimer_ = pw_loop_add_timer(
        loop_, [](void* self, uint64_t) { static_cast<Player*>(self)->nextPart(); }, this);
    spa_source* endTimer = pw_loop_add_timer(
        loop_, [](void* self, uint64_t) { static_cast<Player*>(self)->end(0); }, this);
    news_ = pw_loop_add_event(
        loop_, [](void* self, uint64_t) { static_cast<Player*>(self)->report(); }, this);
    if (!connect()) {
        std::cerr << "toneplayer: no audio server" << std::endl;
        return 1;
    }
    if (options_.anonymous) {
        spa_source* timer = pw_loop_add_timer(
            loop_, [](void* self, uint64_t) { static_cast<Player*>(self)->introduce(); }, this);
        setTimer(timer, *options_.anonymous);
    }
    nextPart();
    setTimer(endTimer, options_.seconds);
    pw_main_loop_run(mainLoop_);
    return failed_ ? 1 : 0;
}

}

int main(int argc, char** argv)
{
    const std::optional<Options> options = readOptions(std::vector<std::string>(argv + 1, argv + argc));
    if (!options) {
        std::cerr << "toneplayer: wrong command line" << std::endl;
        return 2;
    }
    pw_init(nullptr, nullptr);
    const int code = Player(*options).run();
    pw_deinit();
    return code;
}
