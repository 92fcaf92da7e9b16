#include "fakeplatform.h"

#include "fakeaudio.h"
#include "platform/application.h"
#include "platform/memory.h"
#include "platform/recordinghold.h"
#include "platform/screen.h"

#include <algorithm>

/// The system's own (tests/fakes/CMakeLists.txt).
namespace systemmemory {
uchar* takeMemory(std::size_t size);
uchar* reserveAddresses(std::size_t size);
bool prepareMemory(uchar* memory, std::size_t size);
bool mapAgain(const uchar* memory, uchar* address, std::size_t size);
void emptyMemory(uchar* memory, std::size_t size);
void freeMemory(uchar* memory, std::size_t size);
}

namespace fakeplatform {

State& state()
{
    static State instance;
    return instance;
}

std::atomic<int>& openWindows()
{
    static std::atomic<int> count = 0;
    return count;
}

std::atomic<std::size_t>& memoryTaken()
{
    static std::atomic<std::size_t> bytes = 0;
    return bytes;
}

std::atomic<std::size_t>& memoryEmptied()
{
    static std::atomic<std::size_t> bytes = 0;
    return bytes;
}

void reset()
{
    state() = State();
    openWindows() = 0;
    audio() = AudioState();
}

QImage solidImage(int width, int height, QRgb colour)
{
    QImage image(width, height, QImage::Format_RGB32);
    image.fill(colour | 0xff000000u);
    return image;
}

}

namespace platform {

using fakeplatform::state;

bool preflightScreenCaptureAccess()
{
    const auto& answers = state().preflightAnswers;
    const auto index = std::min(std::size_t(state().preflightCalls++), answers.size() - 1);
    return answers[index];
}

bool requestScreenCaptureAccess()
{
    ++state().requestCalls;
    return state().requestAnswer;
}

void enrolForScreenCapture()
{
    ++state().enrolments;
}

struct WindowSource::Impl {
    int imagesAsked = 0;
    qint64 lastKey = 0; // of the last one that was not null
};

WindowSource::WindowSource(quint32 windowId) : impl_(std::make_unique<Impl>())
{
    state().openedWindows.push_back(windowId);
    ++fakeplatform::openWindows();
}

WindowSource::~WindowSource()
{
    --fakeplatform::openWindows();
}

WindowSample WindowSource::sample(bool withBounds)
{
    WindowSample sample;
    const int index = impl_->imagesAsked++;
    if (state().image)
        sample.image = state().image(index);
    sample.unusable = state().imageWasUnusable;
    if (sample.image.isNull())
        return sample;
    if (state().changedRows) {
        sample.changedRows = state().changedRows(index);
    } else if (sample.image.cacheKey() != impl_->lastKey) {
        sample.changedRows = RowSet(0, sample.image.height());
    }
    sample.ownBytes = sample.changedRows.isEmpty() ? 0 : sample.image.sizeInBytes();
    impl_->lastKey = sample.image.cacheKey();
    if (withBounds && state().bounds)
        sample.bounds = state().bounds();
    if (state().pointer)
        sample.pointer = state().pointer();
    return sample;
}

void chooseGuiPlatform() { }

void becomeAccessory() { }

struct RecordingHold::Impl { };

RecordingHold::RecordingHold(const std::function<void()>&) { }

RecordingHold::~RecordingHold() = default;

QString mainBundleString(const char*)
{
    return QString();
}

std::optional<quint32> peerUserId(qintptr)
{
    ++state().peerUserIdCalls;
    return state().peerUserId;
}

quint32 ownUserId()
{
    return state().ownUserId;
}

std::optional<qint64> availableMemory()
{
    return state().availableMemory;
}

std::optional<quint32> administratorsGroup()
{
    return state().administratorsGroup;
}

namespace {

bool refusesMemory()
{
    return state().memoryCallsLeft && (*state().memoryCallsLeft)-- <= 0;
}

}

uchar* takeMemory(std::size_t size)
{
    uchar* const memory = refusesMemory() ? nullptr : systemmemory::takeMemory(size);
    fakeplatform::memoryTaken() += memory ? size : 0;
    return memory;
}

uchar* reserveAddresses(std::size_t size)
{
    uchar* const addresses = refusesMemory() ? nullptr : systemmemory::reserveAddresses(size);
    fakeplatform::memoryTaken() += addresses ? size : 0;
    return addresses;
}

bool prepareMemory(uchar* memory, std::size_t size)
{
    return !refusesMemory() && systemmemory::prepareMemory(memory, size);
}

bool mapAgain(const uchar* memory, uchar* address, std::size_t size)
{
    if (!refusesMemory())
        return systemmemory::mapAgain(memory, address, size);
    freeMemory(address, size); // as a system may
    return false;
}

void emptyMemory(uchar* memory, std::size_t size)
{
    fakeplatform::memoryEmptied() += size;
    systemmemory::emptyMemory(memory, size);
}

void freeMemory(uchar* memory, std::size_t size)
{
    fakeplatform::memoryTaken() -= size;
    systemmemory::freeMemory(memory, size);
}

}
