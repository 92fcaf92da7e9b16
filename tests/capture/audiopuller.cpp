// Looking up, starting, fetching.
#include "audiopuller.h"

#include <QThread>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <mutex>
#include <utility>

namespace {

constexpr qint64 nsPerMs = 1'000'000;
constexpr int waitLimitMs = 20'000; // against hanging; milliseconds when nothing else runs
constexpr int turnMs = 10;

qint64 monotonicMs()
{
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

/// An answer that may come after nobody waits for it any more.
struct Answer {
    platform::Semaphore arrived;
    std::mutex mutex;
    std::shared_ptr<const platform::AudioContent> content;
    std::optional<QString> error;
};

}

std::shared_ptr<const platform::AudioContent> lookUpAudio(QString* error, int limitMs)
{
    const auto answer = std::make_shared<Answer>();
    platform::requestAudioContent(true, false,
        [answer](std::shared_ptr<const platform::AudioContent> content, const std::optional<QString>& text) {
            {
                const std::lock_guard lock(answer->mutex);
                answer->content = std::move(content);
                answer->error = text;
            }
            answer->arrived.signal();
        });
    const bool arrived = answer->arrived.wait(limitMs * nsPerMs);
    const std::lock_guard lock(answer->mutex);
    *error = arrived ? answer->error.value_or(QString()) : QStringLiteral("no answer");
    return answer->content;
}

std::optional<std::size_t> indexOf(const platform::AudioContent& content, qint64 pid)
{
    for (std::size_t i = 0; i < content.applications.size(); ++i) {
        if (content.applications[i].processId == pid)
            return i;
    }
    return std::nullopt;
}

AudioPuller::AudioPuller() : output_(receiver())
{
    capturing_ = start(nullptr);
}

AudioPuller::AudioPuller(const std::set<qint64>& wanted) : output_(receiver())
{
    capturing_ = start(&wanted);
}

platform::AudioReceiver AudioPuller::receiver()
{
    return {[this](const platform::AudioSampleBuffer* buffer) { append(*buffer); },
        [this](const std::optional<QString>&) { ++timesStopped_; }};
}

AudioPuller::~AudioPuller() = default;

/// wanted: null for everything.
bool AudioPuller::start(const std::set<qint64>* wanted)
{
    platform::AudioFilter filter;
    filter.content = lookUpAudio(&error_);
    if (!filter.content)
        return false;
    if (wanted) {
        filter.excludedApplications.emplace();
        for (std::size_t i = 0; i < filter.content->applications.size(); ++i) {
            if (wanted->count(filter.content->applications[i].processId) == 0)
                filter.excludedApplications->push_back(i);
        }
        if (filter.excludedApplications->size() + wanted->size() != filter.content->applications.size()) {
            error_ = QStringLiteral("not every wanted process is in the content");
            return false;
        }
    }
    platform::AudioStreamConfiguration configuration;
    configuration.capturesAudio = true;
    configuration.sampleRate = 48000;
    configuration.channelCount = 2;
    stream_ = std::make_unique<platform::AudioStream>(filter, configuration, output_);
    std::optional<QString> refusal;
    if (!stream_->addStreamOutput(output_, queue_, &refusal)) {
        error_ = refusal.value_or(QStringLiteral("no reason"));
        return false;
    }
    return startCapture();
}

bool AudioPuller::waitFor(void (platform::AudioStream::*request)(platform::AudioCompletion))
{
    const auto answer = std::make_shared<Answer>();
    (stream_.get()->*request)([answer](const std::optional<QString>& error) {
        {
            const std::lock_guard lock(answer->mutex);
            answer->error = error;
        }
        answer->arrived.signal();
    });
    const bool arrived = answer->arrived.wait(waitLimitMs * nsPerMs);
    const std::lock_guard lock(answer->mutex);
    error_ = arrived ? answer->error.value_or(QString()) : QStringLiteral("no answer");
    return error_.isEmpty() && !answer->error;
}

bool AudioPuller::startCapture()
{
    const auto before = qint64(audio_.size() / 96);
    delivered_ = false;
    earliestStartMs_ = monotonicMs() - before;
    const bool started = waitFor(&platform::AudioStream::startCapture);
    latestStartMs_ = monotonicMs() - before;
    return started;
}

bool AudioPuller::stopCapture()
{
    return waitFor(&platform::AudioStream::stopCapture);
}

void AudioPuller::fetch()
{
    fetchUntil(monotonicMs(), false);
}

int AudioPuller::fetchTheLast(int laterMs)
{
    return fetchUntil(monotonicMs() + laterMs, true);
}

int AudioPuller::fetchUntil(qint64 untilMs, bool last)
{
    const std::size_t before = audio_.size();
    int turns = 1;
    platform::AudioDelivery delivery = stream_->deliverUntil(untilMs, last);
    for (; delivery.untilMs < untilMs; ++turns)
        delivery = stream_->deliverUntil(untilMs, last);
    missed_ = delivery.missed;
    if (audio_.size() == before)
        return turns;
    if (!std::exchange(delivered_, true))
        startMs_ = std::clamp(untilMs - qint64(audio_.size() / 96), earliestStartMs_, latestStartMs_);
    surplusMs_ = qint64(audio_.size() / 96) - (untilMs - startMs_);
    return turns;
}

void AudioPuller::append(const platform::AudioSampleBuffer& buffer)
{
    const std::optional<platform::AudioBufferList> list = buffer.bufferList();
    const std::size_t count = list && list->buffers.size() == 1 ? list->buffers[0].bytes / sizeof(float) : 0;
    if (count != std::size_t(buffer.frames) * 2)
        return; // the missing audio shows
    const std::size_t old = audio_.size();
    audio_.resize(old + count);
    std::memcpy(audio_.data() + old, list->buffers[0].data, count * sizeof(float));
}

void AudioPuller::pull(int ms)
{
    const qint64 until = monotonicMs() + ms;
    while (monotonicMs() < until) {
        QThread::msleep(turnMs);
        fetch();
    }
}

std::vector<AudioPuller::Piece> AudioPuller::listen(const std::vector<AudioPuller*>& pullers, int ms)
{
    const std::size_t wanted = std::size_t(ms) * 96;
    std::vector<std::size_t> first;
    for (const AudioPuller* puller : pullers)
        first.push_back(puller->audio_.size());
    const auto isThere = [&] {
        for (std::size_t i = 0; i < pullers.size(); ++i) {
            if (pullers[i]->audio_.size() < first[i] + wanted)
                return false;
        }
        return true;
    };
    const qint64 limit = monotonicMs() + waitLimitMs;
    while (!isThere() && monotonicMs() < limit) {
        QThread::msleep(turnMs);
        for (AudioPuller* puller : pullers)
            puller->fetch();
    }
    std::vector<Piece> pieces;
    for (std::size_t i = 0; i < pullers.size(); ++i) {
        const std::vector<float>& audio = pullers[i]->audio_;
        const auto begin = audio.begin() + std::ptrdiff_t(first[i]);
        pieces.push_back(
            {std::vector<float>(begin, begin + std::ptrdiff_t(std::min(wanted, audio.size() - first[i]))),
                double(pullers[i]->startMs_) + double(first[i]) / 96});
    }
    return pieces;
}

AudioPuller::Piece AudioPuller::listen(int ms)
{
    return listen({this}, ms).front();
}
