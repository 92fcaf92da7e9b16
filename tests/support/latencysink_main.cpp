// latencysink: a sink that tells players how long its audio takes to be heard, as wireless headphones do.
//
//   latencysink NAME MILLISECONDS
//
// What is played to it is thrown away. Prints "ready" once it stands in the graph. Every line that it reads is a new
// latency in milliseconds, and answered by "told" when it is on its way to the server. Ends with 0 when its input
// ends or on SIGTERM, with 1 when the audio server refuses or goes, with 2 for a wrong command line.
#include <pipewire/pipewire.h>
#include <spa/param/audio/format-utils.h>
#include <spa/param/latency-utils.h>

#include <array>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>
#include <unistd.h>

namespace {

class Sink {
public:
    Sink(std::string name, int64_t latencyMs) : name_(std::move(name)), latencyMs_(latencyMs) { }
    ~Sink();
    Sink(const Sink&) = delete;
    Sink& operator=(const Sink&) = delete;

    int run(); ///< the exit code

private:
    static void process(void* self);
    static void stateChanged(void* self, pw_stream_state, pw_stream_state state, const char* error);
    static void readInput(void* self, int descriptor, uint32_t mask);
    bool connect();
    void tell();
    void end(int code);

    std::string name_;
    int64_t latencyMs_;
    std::string line_; // of the input, as far as it has come
    pw_main_loop* mainLoop_ = nullptr;
    pw_stream* stream_ = nullptr;
    bool ready_ = false;
    int code_ = 0;
};

Sink::~Sink()
{
    if (stream_)
        pw_stream_destroy(stream_);
    if (mainLoop_)
        pw_main_loop_destroy(mainLoop_);
}

void Sink::end(int code)
{
    code_ = code;
    pw_main_loop_quit(mainLoop_);
}

void Sink::process(void* self)
{
    pw_stream* stream = static_cast<Sink*>(self)->stream_;
    if (pw_buffer* buffer = pw_stream_dequeue_buffer(stream))
        pw_stream_queue_buffer(stream, buffer);
}

void Sink::stateChanged(void* self, pw_stream_state, pw_stream_state state, const char* error)
{
    auto* sink = static_cast<Sink*>(self);
    if (state == PW_STREAM_STATE_ERROR || state == PW_STREAM_STATE_UNCONNECTED) {
        std::cerr << "latencysink: " << (error ? error : "not connected") << std::endl;
        sink->end(1);
    } else if (!sink->ready_ && state == PW_STREAM_STATE_PAUSED) {
        sink->ready_ = true;
        sink->tell();
        std::cout << "ready" << std::endl;
    }
}

void Sink::tell()
{
    std::array<uint8_t, 512> memory;
    spa_pod_builder builder{};
    spa_pod_builder_init(&builder, memory.data(), memory.size());
    spa_latency_info latency{};
    latency.direction = SPA_DIRECTION_INPUT;
    latency.min_ns = uint64_t(latencyMs_) * SPA_NSEC_PER_MSEC;
    latency.max_ns = latency.min_ns;
    const spa_pod* parameter = spa_latency_build(&builder, SPA_PARAM_Latency, &latency);
    pw_stream_update_params(stream_, &parameter, 1);
}

void Sink::readInput(void* self, int descriptor, uint32_t)
{
    auto* sink = static_cast<Sink*>(self);
    std::array<char, 256> bytes;
    const ssize_t count = ::read(descriptor, bytes.data(), bytes.size());
    if (count <= 0) {
        sink->end(0);
        return;
    }
    sink->line_.append(bytes.data(), std::size_t(count));
    for (std::size_t end = 0; (end = sink->line_.find('\n')) != std::string::npos; sink->line_.erase(0, end + 1)) {
        sink->latencyMs_ = std::atoll(sink->line_.c_str());
        sink->tell();
        std::cout << "told" << std::endl;
    }
}

bool Sink::connect()
{
    static const pw_stream_events events = [] {
        pw_stream_events handlers{};
        handlers.version = PW_VERSION_STREAM_EVENTS;
        handlers.state_changed = stateChanged;
        handlers.process = process;
        return handlers;
    }();
    stream_ = pw_stream_new_simple(pw_main_loop_get_loop(mainLoop_), name_.c_str(),
        pw_properties_new(PW_KEY_MEDIA_CLASS, "Audio/Sink", PW_KEY_NODE_NAME, name_.c_str(), PW_KEY_NODE_DESCRIPTION,
            name_.c_str(), nullptr),
        &events, this);
    if (!stream_)
        return false;
    std::array<uint8_t, 1024> memory;
    spa_pod_builder builder{};
    spa_pod_builder_init(&builder, memory.data(), memory.size());
    spa_audio_info_raw info{};
    info.format = SPA_AUDIO_FORMAT_F32P;
    info.rate = 48000;
    info.channels = 2;
    info.position[0] = SPA_AUDIO_CHANNEL_FL;
    info.position[1] = SPA_AUDIO_CHANNEL_FR;
    const spa_pod* format = spa_format_audio_raw_build(&builder, SPA_PARAM_EnumFormat, &info);
    return pw_stream_connect(stream_, PW_DIRECTION_INPUT, PW_ID_ANY,
               pw_stream_flags(PW_STREAM_FLAG_MAP_BUFFERS | PW_STREAM_FLAG_RT_PROCESS), &format, 1)
        >= 0;
}

int Sink::run()
{
    mainLoop_ = pw_main_loop_new(nullptr);
    pw_loop* loop = pw_main_loop_get_loop(mainLoop_);
    pw_loop_add_signal(
        loop, SIGTERM, [](void* self, int) { static_cast<Sink*>(self)->end(0); }, this);
    pw_loop_add_io(loop, STDIN_FILENO, SPA_IO_IN | SPA_IO_HUP, false, readInput, this);
    if (!connect()) {
        std::cerr << "latencysink: no audio server" << std::endl;
        return 1;
    }
    pw_main_loop_run(mainLoop_);
    return code_;
}

}

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::cerr << "latencysink: wrong command line" << std::endl;
        return 2;
    }
    pw_init(nullptr, nullptr);
    const int code = Sink(argv[1], std::atoll(argv[2])).run();
    pw_deinit();
    return code;
}
