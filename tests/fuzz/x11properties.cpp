// X11 properties: what programs write at their windows and servers answer, events, and pixels.
//
// The first byte says what it is. Answers lie in memory of their own size, as libxcb hands them out.
#include "clientprocess.h"
#include "clientshadow.h"
#include "fuzztarget.h"
#include "plaintext.h"
#include "unpaintedarea.h"
#include "windowowners.h"
#include "windowwish.h"
#include "x11pixels.h"
#include "x11windowevents.h"
#include "xcbhandles.h"
#include "xcbreplies.h"

#include <QImage>
#include <QJsonDocument>
#include <QRegion>

#include <algorithm>
#include <cstdlib>

#include <xcb/damage.h>
#include <xcb/shape.h>

namespace {

constexpr std::size_t mostBodyWords = 64;
constexpr std::size_t wordBytes = 4;

/// An answer with as many bytes behind its head as it says. All else in it is the input's.
template <typename Reply>
x11::Allocated<Reply> takeReply(fuzz::Input& input)
{
    const std::size_t words = input.take<uint8_t>() % (mostBodyWords + 1);
    x11::Allocated<Reply> reply(static_cast<Reply*>(std::calloc(1, sizeof(Reply) + words * wordBytes)));
    const auto head = input.takeBytes(sizeof(Reply));
    std::copy(head.begin(), head.end(), reinterpret_cast<uint8_t*>(reply.get()));
    const auto body = input.takeBytes(words * wordBytes);
    std::copy(body.begin(), body.end(), reinterpret_cast<uint8_t*>(reply.get() + 1));
    reply->response_type = 1;
    reply->length = uint32_t(words);
    return reply;
}

/// A window of that title, as record-window lists it.
void checkList(const QString& title)
{
    WindowInfo window;
    window.id = 1;
    window.process = 2;
    window.processName = title;
    window.title = title;
    const QStringList lines = windowTable({window}).split(QLatin1Char('\n'));
    fuzz::require(lines.size() == 3 && lines[2].isEmpty(), "a window is one line below the head line");
    fuzz::require(plainText(lines[1]) == lines[1], "a list has nothing that steers a terminal");
    const QByteArray json = windowJson({window});
    fuzz::require(json.indexOf('\n') == json.size() - 1 && QJsonDocument::fromJson(json).isArray(),
        "a list for programs is one line of JSON");
}

void checkProperty(fuzz::Input& input)
{
    const QSize window(input.take<uint16_t>(), input.take<uint16_t>());
    const auto reply = takeReply<xcb_get_property_reply_t>(input);
    const auto values = x11::propertyValues(reply.get());
    const QByteArrayView text = x11::propertyText(reply.get());
    fuzz::require(values.empty() || text.isEmpty(), "a property has one format");
    fuzz::require(
        values.size_bytes() <= reply->length * wordBytes && std::size_t(text.size()) <= reply->length * wordBytes,
        "a property is no longer than the answer");
    const QList<quint32> numbers(values.begin(), values.end());
    const QMargins shadow = x11::clientShadow(reply.get(), window);
    fuzz::require(shadow.isNull() || numbers.size() == 4, "a shadow is told by four numbers");
    const QRect visible = QRect(QPoint(0, 0), window).marginsRemoved(shadow);
    fuzz::require(shadow.isNull() || (visible.width() * 2 > window.width() && visible.height() * 2 > window.height()),
        "a shadow leaves most of the window");
    fuzz::require(window.isEmpty() || QRect(QPoint(0, 0), window).contains(visible), "a shadow lies in the window");
    const QString name = windowowners::className(text);
    fuzz::require(!name.contains(QChar()) && name.size() <= text.size(), "a class is a part of the text");
    checkList(QString::fromUtf8(text));
}

void checkTree(fuzz::Input& input)
{
    const auto reply = takeReply<xcb_query_tree_reply_t>(input);
    const auto children = x11::childrenIn(reply.get());
    fuzz::require(children.size() <= reply->length, "children are no more than the answer holds");
    const QList<xcb_window_t> windows(children.begin(), children.end());
    fuzz::require(windows.size() == qsizetype(children.size()), "children can be read");
}

void checkClient(fuzz::Input& input)
{
    const auto reply = takeReply<xcb_res_query_client_ids_reply_t>(input);
    const qint64 process = x11::clientProcess(reply.get());
    fuzz::require(process >= 0 && process <= std::numeric_limits<quint32>::max(), "a process has 32 bits");
}

void checkShape(fuzz::Input& input)
{
    const auto reply = takeReply<xcb_shape_get_rectangles_reply_t>(input);
    constexpr quint32 most = 32;
    QRegion shape;
    for (const auto& part : x11::itemsOf<xcb_rectangle_t>(*reply, std::min(reply->rectangles_len, most)))
        shape += QRect(part.x, part.y, part.width, part.height);
    fuzz::require(
        QRect(-32768, -32768, 32768 + 98304, 32768 + 98304).contains(shape.boundingRect()) || shape.isEmpty(),
        "a shape has coordinates of 16 bits");
}

void checkEvents(fuzz::Input& input)
{
    constexpr int mostEvents = 16;
    constexpr x11::WatchedWindow watched{0x200001, 91, 0x400002};
    x11::UnpaintedArea unpainted(QRect(0, 0, input.take<uint16_t>(), input.take<uint16_t>()));
    x11::UnpaintedArea::TimePoint now;
    unpainted.begin(now);
    for (int i = 0; i < mostEvents && !input.isEmpty(); ++i) {
        xcb_generic_event_t event{};
        const auto choice = input.take<uint8_t>();
        const auto bytes = input.takeBytes(32);
        std::copy(bytes.begin(), bytes.end(), reinterpret_cast<uint8_t*>(&event));
        const auto own = x11::windowEvent(event, watched);
        fuzz::require(!own || !(event.response_type & 0x80), "what a client has sent does not count");
        if (own && own->kind == x11::WindowEvent::Kind::Shown)
            unpainted.begin(now);
        else if (own && own->kind == x11::WindowEvent::Kind::Configured)
            unpainted.configure(own->area, choice & 1, now);
        else if (own && own->kind == x11::WindowEvent::Kind::Damaged)
            unpainted.addDamage(own->area, own->more);
        const QRect whole(QPoint(0, 0), unpainted.size());
        fuzz::require((unpainted.at(now) - whole).isEmpty(), "what is not painted lies in the window");
        now += std::chrono::milliseconds(choice);
    }
    now += x11::UnpaintedArea::patience;
    fuzz::require(unpainted.at(now).isEmpty(), "patience ends");
}

void checkPixels(fuzz::Input& input)
{
    constexpr int mostPixels = 16; // a side
    static constexpr std::pair<int, quint32> visuals[]
        = {{32, 0xff0000}, {24, 0xff0000}, {30, 0x3ff00000}, {16, 0xf800}};
    xcb_visualtype_t visual{};
    const auto& [depth, red] = visuals[input.take<uint8_t>() % std::size(visuals)];
    visual.red_mask = red;
    visual.green_mask = depth == 16 ? 0x07e0 : depth == 30 ? 0x000ffc00 : 0x00ff00;
    visual.blue_mask = depth == 16 ? 0x001f : depth == 30 ? 0x000003ff : 0x0000ff;
    const auto layout = x11::pixelLayout(depth, depth == 16 ? 16 : 32, visual);
    fuzz::require(layout.has_value(), "the usual layouts are known");
    const QSize size(1 + input.take<uint8_t>() % mostPixels, 1 + input.take<uint8_t>() % mostPixels);
    std::vector<uint8_t> pixels(std::size_t(layout->byteCount(size)));
    const auto bytes = input.takeBytes(pixels.size());
    std::copy(bytes.begin(), bytes.end(), pixels.begin());
    const QImage image = x11::imageFromPixels(pixels.data(), size, *layout);
    fuzz::require(image.size() == size && image.format() == x11::imageFormat(*layout), "an image of the format told");
    for (int y = 0; y < image.height() && image.format() == QImage::Format_RGB32; ++y) {
        const auto* line = reinterpret_cast<const quint32*>(image.constScanLine(y));
        fuzz::require(std::all_of(line, line + image.width(), [](quint32 pixel) { return pixel >> 24 == 0xff; }),
            "opaque images are opaque");
    }
}

void run(fuzz::Input input)
{
    constexpr void (*checks[])(fuzz::Input&)
        = {checkProperty, checkTree, checkClient, checkShape, checkEvents, checkPixels};
    checks[input.take<uint8_t>() % std::size(checks)](input);
}

const fuzz::Target x11Properties{"x11properties", run, {}};

}

ORVANTIS_FUZZ_TARGET(x11Properties)
