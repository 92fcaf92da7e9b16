#include "fakeplatform.h"

#include "fakeaudio.h"
#include "platform/application.h"
#include "platform/screen.h"

#include <algorithm>

namespace fakeplatform {

State& state()
{
    static State instance;
    return instance;
}

void reset()
{
    state() = State();
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

struct WindowSource::Impl {
    int imagesAsked = 0;
};

WindowSource::WindowSource(quint32 windowId) : impl_(std::make_unique<Impl>())
{
    state().openedWindows.push_back(windowId);
    ++state().openWindows;
}

WindowSource::~WindowSource()
{
    --state().openWindows;
}

QImage WindowSource::image()
{
    const int index = impl_->imagesAsked++;
    return state().image ? state().image(index) : QImage();
}

bool WindowSource::imageWasUnusable() const
{
    return state().imageWasUnusable;
}

std::optional<QRectF> WindowSource::bounds()
{
    return state().bounds ? state().bounds() : std::nullopt;
}

std::optional<QPointF> WindowSource::pointerLocation()
{
    return state().pointer ? state().pointer() : std::nullopt;
}

void chooseGuiPlatform() { }

void becomeAccessory() { }

QString mainBundleString(const char*)
{
    return QString();
}

std::optional<quint32> peerUserId(qintptr)
{
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

}
