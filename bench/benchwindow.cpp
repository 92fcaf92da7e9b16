// The window is painted by the X server alone, so that painting costs this process nothing.
#include "benchwindow.h"

#include <xcb/xcb.h>

#include <cstdlib>

namespace {

constexpr int stripeHeight = 16; // pixels

/// A visual of that depth, or 0 when the screen has none.
xcb_visualid_t visualOfDepth(const xcb_screen_t* screen, int depth)
{
    for (auto depths = xcb_screen_allowed_depths_iterator(screen); depths.rem; xcb_depth_next(&depths)) {
        if (depths.data->depth == depth && depths.data->visuals_len > 0)
            return xcb_depth_visuals(depths.data)->visual_id;
    }
    return 0;
}

/// A premultiplied pixel: every alpha occurs, and the colours differ from painting to painting.
quint32 stripeColour(quint32 painting, quint32 stripe)
{
    const quint32 alpha = (stripe * 37 + painting * 11) & 0xff;
    const quint32 red = alpha * (stripe & 3) / 3;
    const quint32 green = alpha * (painting & 3) / 3;
    const quint32 blue = alpha / 2;
    return alpha << 24 | red << 16 | green << 8 | blue;
}

}

BenchWindow::BenchWindow(QSize size, int depth) : connection_(xcb_connect(nullptr, nullptr)), size_(size)
{
    if (!open(size, depth))
        return;
    paint();
}

BenchWindow::~BenchWindow()
{
    xcb_disconnect(connection_);
}

bool BenchWindow::open(QSize size, int depth)
{
    if (xcb_connection_has_error(connection_)) {
        error_ = QStringLiteral("no X server at DISPLAY=%1").arg(qEnvironmentVariable("DISPLAY"));
        return false;
    }
    const xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(connection_)).data;
    const xcb_visualid_t visual = visualOfDepth(screen, depth);
    if (visual == 0) {
        error_ = QStringLiteral("the X server has no windows of depth %1").arg(depth);
        return false;
    }
    const xcb_colormap_t colours = xcb_generate_id(connection_);
    xcb_create_colormap(connection_, XCB_COLORMAP_ALLOC_NONE, colours, screen->root, visual);
    window_ = xcb_generate_id(connection_);
    const quint32 values[] = {0, 0, colours}; // background, border, colours; all needed at a depth of its own
    xcb_create_window(connection_, quint8(depth), window_, screen->root, 0, 0, quint16(size.width()),
        quint16(size.height()), 0, XCB_WINDOW_CLASS_INPUT_OUTPUT, visual,
        XCB_CW_BACK_PIXEL | XCB_CW_BORDER_PIXEL | XCB_CW_COLORMAP, values);
    context_ = xcb_generate_id(connection_);
    xcb_create_gc(connection_, context_, window_, 0, nullptr);
    xcb_map_window(connection_, window_);
    synchronise();
    return true;
}

void BenchWindow::paint(int changedPercent)
{
    ++paintings_;
    const int changedHeight = size_.height() * changedPercent / 100;
    for (int y = 0; y < size_.height(); y += stripeHeight) {
        const quint32 colour = stripeColour(y < changedHeight ? paintings_ : 0, quint32(y / stripeHeight));
        xcb_change_gc(connection_, context_, XCB_GC_FOREGROUND, &colour);
        const xcb_rectangle_t stripe{0, qint16(y), quint16(size_.width()), quint16(stripeHeight)};
        xcb_poly_fill_rectangle(connection_, window_, context_, 1, &stripe);
    }
    synchronise();
}

void BenchWindow::synchronise()
{
    std::free(xcb_get_input_focus_reply(connection_, xcb_get_input_focus(connection_), nullptr));
}
