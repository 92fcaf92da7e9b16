// Which window is meant, and what the windows look like in a list.
#pragma once

#include "windowlist.h"

#include <QByteArray>
#include <QList>
#include <QString>

/// Which window is meant.
struct WindowWish {
    enum class By { Id, Title, Process, Click, Focus, Again };

    By by = By::Id;
    quint32 id = 0;
    QString title; ///< a part of it, or a regular expression between slashes
    qint64 process = 0; ///< process id
};

/// Those of the windows that are meant.
QList<WindowInfo> matchingWindows(const QList<WindowInfo>& windows, const WindowWish& wish);

/// For a terminal: one line each, with a head line.
QString windowTable(const QList<WindowInfo>& windows);
/// One line of JSON with its line feed.
QByteArray windowJson(const QList<WindowInfo>& windows);
