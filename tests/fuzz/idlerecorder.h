// IdleRecorder: a recorder whose worker has ended, for targets that drive its own functions; one for all inputs.
#pragma once

#include "fakeplatform.h"
#include "fuzztarget.h"
#include "privatetempdir.h"
#include "recorderprobe.h"

#include <QLocalServer>
#include <QLocalSocket>

#include <memory>

namespace fuzz {

class IdleRecorder {
public:
    IdleRecorder()
    {
        // That there is no window is a warning, and wanted.
        const QtMessageHandler before
            = qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
        fakeplatform::reset();
        require(server_.listen(QStringLiteral("orvantis-recorder")), "a launcher can listen");
        recorder_ = std::make_unique<GstRecorder>(QStringLiteral("qt-window-capture"), QString(), QStringLiteral("0"),
            0, 0, 32, 16, 1.0, QString(), nullptr); // window 0 is none
        probe().waitForWorker();
        require(server_.waitForNewConnection(waitMs), "the recorder connects");
        launcher_ = server_.nextPendingConnection();
        qInstallMessageHandler(before);
    }

    GstRecorder& recorder() { return *recorder_; }
    RecorderProbe probe() { return RecorderProbe(*recorder_); }
    /// The launcher's end of the control socket.
    int launcherDescriptor() const { return int(launcher_->socketDescriptor()); }

private:
    static constexpr int waitMs = 10000;

    PrivateTempDir directory_; // the socket lies in it
    QLocalServer server_;
    QLocalSocket* launcher_ = nullptr; // child of the server
    std::unique_ptr<GstRecorder> recorder_;
};

}
