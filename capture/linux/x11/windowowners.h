// Who owns windows on the display.
#pragma once

#include <QByteArrayView>
#include <QString>
#include <QtGlobal>

#include <optional>
#include <vector>

namespace windowowners {

/// A process with at least one window that a user would take for one.
struct Owner {
    qint64 processId = 0;
    QString name; ///< the class of its first window; may be empty
    QString applicationId; ///< as one of its windows tells it; else empty
};

/// The class in the text of WM_CLASS, which is the instance and then the class, each with a zero byte behind it.
QString className(QByteArrayView text);

/// Each process once, in the order of the windows. Waits for the X server with a bound; nothing when it is gone or
/// does not answer, so that it is not known. Without DISPLAY there are none. Any thread.
std::optional<std::vector<Owner>> find();

}
