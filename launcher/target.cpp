// The choice of the window, and the defaults that come from it.
#include "target.h"

#include "plaintext.h"
#include "windowwish.h"

#include <chrono>
#include <csignal>
#include <future>
#include <thread>

using namespace std::chrono_literals;

namespace {

constexpr auto answerLimit = 1s; // a window system that works takes milliseconds
constexpr QSize usualCanvas(1280, 720);

/// Calls a function on a thread of its own, which outlives this when the window system does not answer.
template <typename Function>
WindowAnswer withinLimit(Function function)
{
    std::packaged_task<WindowAnswer()> task(function);
    std::future<WindowAnswer> answer = task.get_future();
    std::thread(std::move(task)).detach();
    if (answer.wait_for(answerLimit) == std::future_status::ready)
        return answer.get();
    return {{}, QStringLiteral("the X server does not answer")};
}

WindowAnswer ask(const WindowWish& wish)
{
    switch (wish.by) {
    case WindowWish::By::Id:
        return withinLimit([id = wish.id] { return windowlist::withId(id); });
    case WindowWish::By::Focus:
        return withinLimit(windowlist::active);
    case WindowWish::By::Click:
        return windowlist::picked();
    case WindowWish::By::Title:
    case WindowWish::By::Process:
    case WindowWish::By::Again:
        break;
    }
    return listWindows();
}

QString noSuchWindow(const WindowWish& wish)
{
    switch (wish.by) {
    case WindowWish::By::Id:
        return QStringLiteral("there is no window 0x%1 on this display; --list shows those that there are")
            .arg(wish.id, 0, 16);
    case WindowWish::By::Focus:
        return QStringLiteral("--active: no window has the keyboard");
    case WindowWish::By::Click:
        return QStringLiteral("--select: no window was clicked");
    case WindowWish::By::Title:
        return QStringLiteral("--title: no window has '%1' in its title; --list shows those that there are")
            .arg(plainText(wish.title));
    case WindowWish::By::Process:
    case WindowWish::By::Again:
        break;
    }
    return QStringLiteral("--pid: process %1 shows no window; --list shows those that there are").arg(wish.process);
}

/// The window; nothing when it is not known more of it than its id, or when there is an error.
std::optional<WindowInfo> chooseWindow(const WindowWish& wish, Target& target)
{
    const WindowAnswer answer = ask(wish);
    if (!answer.error.isEmpty()) {
        target.window = wish.id;
        if (wish.by == WindowWish::By::Id)
            target.remarks += QStringLiteral("nothing is known of the window: %1").arg(answer.error);
        else
            target.error = answer.error;
        return std::nullopt;
    }
    const QList<WindowInfo> matches = matchingWindows(answer.windows, wish);
    if (matches.isEmpty()) {
        target.error = noSuchWindow(wish);
        return std::nullopt;
    }
    if (matches.size() > 1) {
        target.error = QStringLiteral("%1 windows are meant; choose one of them with --window:\n%2")
                           .arg(matches.size())
                           .arg(windowTable(matches).trimmed());
        return std::nullopt;
    }
    target.window = matches.first().id;
    if (!matches.first().isShown)
        target.remarks += QStringLiteral("the window is not shown at the moment; is it minimised?");
    return matches.first();
}

void chooseAudio(const AudioWish& wish, const std::optional<WindowInfo>& window, Target& target)
{
    switch (wish.source) {
    case AudioWish::Source::WindowsProcess:
        if (window && window->process > 0)
            target.audioSource = QStringLiteral("app-pid:%1").arg(window->process);
        else if (wish.isGiven)
            target.error = QStringLiteral("--audio app: the process of the window is not known; give app-pid:PID");
        else
            target.remarks += QStringLiteral(
                "the process of the window is not known; the audio of the whole display is recorded");
        break;
    case AudioWish::Source::Process:
        target.audioSource = QStringLiteral("app-pid:%1").arg(wish.process);
        if (::kill(pid_t(wish.process), 0) != 0 && errno == ESRCH)
            target.error = QStringLiteral("--audio: there is no process %1").arg(wish.process);
        break;
    case AudioWish::Source::Nothing:
        target.audioSource = QStringLiteral("app-pid:none"); // the recorder has no other word for it
        break;
    case AudioWish::Source::Everything:
        break;
    }
}

/// Of Wayland: nothing is known of it but its pixels.
Target shareWindow(const Options& options)
{
    const bool again = options.window.by == WindowWish::By::Again;
    const QLatin1String option(again ? "--again" : "--select");
    Target target;
    if (!SharedWindow::isUsual())
        target.error = QStringLiteral("the desktop hands out windows on Wayland only; choose one with --select");
    else if (!options.clicks.isEmpty())
        target.error = QStringLiteral("--click: a window of Wayland has no position on the screen");
    if (target.error.isEmpty())
        chooseAudio(options.audio, std::nullopt, target);
    if (target.error.isEmpty()) {
        target.shared = std::make_shared<SharedWindow>();
        target.error = target.shared->choose(again ? SharedWindow::Choice::Again : SharedWindow::Choice::Ask);
    }
    if (!target.error.isEmpty()) {
        if (!target.error.startsWith(QLatin1String("--")))
            target.error.prepend(option + QLatin1String(": "));
        return target;
    }
    target.window = target.shared->node();
    target.canvas = options.canvas ? *options.canvas : target.shared->measure();
    if (target.canvas.isEmpty())
        target.canvas = usualCanvas;
    target.remarks += target.shared->remark();
    if (options.watchClicks)
        target.remarks += QStringLiteral("mouse clicks are not watched: Wayland tells them to the window alone");
    return target;
}

}

bool asksTheDesktop(const WindowWish& wish)
{
    return wish.by == WindowWish::By::Again || (wish.by == WindowWish::By::Click && SharedWindow::isUsual());
}

Target chooseTarget(const Options& options)
{
    if (asksTheDesktop(options.window))
        return shareWindow(options);
    Target target;
    const std::optional<WindowInfo> window = chooseWindow(options.window, target);
    if (!target.error.isEmpty())
        return target;
    target.canvas = usualCanvas;
    if (options.canvas)
        target.canvas = *options.canvas;
    else if (window)
        target.canvas = window->size;
    chooseAudio(options.audio, window, target);
    return target;
}

WindowAnswer listWindows()
{
    return withinLimit(windowlist::all);
}
