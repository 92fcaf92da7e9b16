// TruthWindowProcess: the truth window, in a process of its own.
#pragma once

#include "playergaps.h"

#include <QByteArray>
#include <QProcess>
#include <QRect>
#include <QString>
#include <QStringList>

#include <vector>

/// On the screen when the constructor returns, gone when the object is. When it cannot be had, id() is 0 and
/// errorString() says why.
class TruthWindowProcess {
public:
    /// Geometry in pixels of the screen; paintings a second, 0 for one painting; further options of truthwindow.
    explicit TruthWindowProcess(const QByteArray& display, const QRect& geometry = QRect(40, 30, 640, 360),
        int fps = 60, const QStringList& more = QStringList());
    ~TruthWindowProcess();
    TruthWindowProcess(const TruthWindowProcess&) = delete;
    TruthWindowProcess& operator=(const TruthWindowProcess&) = delete;

    quint32 id() const { return id_; }
    qint64 pid() const { return process_.processId(); }
    QString errorString() const { return error_; }
    /// What its beeping left out up to now, because it got no processor in time.
    const std::vector<playergaps::Gap>& gaps();

private:
    QProcess process_;
    std::vector<playergaps::Gap> gaps_;
    quint32 id_ = 0;
    QString error_;
};
