// What the tests with a real X server share: the server as the default display, a window, and a look at pixels.
#pragma once

#include "privatexserver.h"
#include "sampledwindow.h"
#include "windowprocess.h"

#include "platform/screen.h"

#include <QImage>
#include <QSize>
#include <QStringList>

/// Points DISPLAY at a server of the test's own.
struct DisplayForTest {
    explicit DisplayForTest(
        QSize screen = QSize(1024, 768), int depth = 24, const QStringList& extraArguments = QStringList())
        : server(screen, depth, extraArguments)
    {
        qputenv("DISPLAY", server.display());
    }

    PrivateXServer server;
};

/// Every pixel of the area has that value (of the image's own format).
inline bool isFilled(const QImage& image, const QRect& area, quint32 pixel)
{
    if (image.isNull() || image.depth() != 32 || !image.rect().contains(area))
        return false;
    for (int y = area.top(); y <= area.bottom(); ++y) {
        const auto* line = reinterpret_cast<const quint32*>(image.constScanLine(y));
        for (int x = area.left(); x <= area.right(); ++x) {
            if (line[x] != pixel)
                return false;
        }
    }
    return true;
}

inline bool isFilled(const QImage& image, quint32 pixel)
{
    return isFilled(image, image.rect(), pixel);
}
