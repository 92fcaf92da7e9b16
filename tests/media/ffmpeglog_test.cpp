// What FFmpeg tells by itself, with and without a reader.
#include "ffmpeglog.h"
#include "testregistry.h"

#include <QTest>

#include <array>
#include <sys/socket.h>
#include <unistd.h>

extern "C" {
#include <libavutil/log.h>
}

namespace {

/// Descriptor 2 for its lifetime: what waits for a reader by default.
class StderrSocket {
public:
    StderrSocket()
    {
        if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends_.data()) != 0)
            qFatal("No socket for stderr");
        saved_ = ::dup(STDERR_FILENO);
        ::dup2(ends_[1], STDERR_FILENO);
    }
    ~StderrSocket()
    {
        ::dup2(saved_, STDERR_FILENO);
        for (const int descriptor : {ends_[0], ends_[1], saved_})
            ::close(descriptor);
    }
    StderrSocket(const StderrSocket&) = delete;
    StderrSocket& operator=(const StderrSocket&) = delete;

    void fill() const
    {
        while (::send(STDERR_FILENO, ".", 1, MSG_DONTWAIT) == 1) { }
    }
    QByteArray take() const
    {
        QByteArray taken;
        std::array<char, 4096> bytes{};
        for (ssize_t size = 0; (size = ::recv(ends_[0], bytes.data(), bytes.size(), MSG_DONTWAIT)) > 0;)
            taken.append(bytes.data(), size);
        return taken;
    }

private:
    std::array<int, 2> ends_{-1, -1};
    int saved_ = -1;
};

}

class FfmpegLogTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { ffmpeglog::tellErrors(); }

    void errorsAreTold();
    void nobodyIsWaitedFor();
};

void FfmpegLogTest::errorsAreTold()
{
    const StderrSocket errors;
    av_log(nullptr, AV_LOG_WARNING, "a warning\n");
    av_log(nullptr, AV_LOG_ERROR, "bits %d of %s\n", 7, "8");
    QCOMPARE(errors.take(), QByteArray("bits 7 of 8\n"));
}

void FfmpegLogTest::nobodyIsWaitedFor()
{
    const StderrSocket errors;
    errors.fill();
    av_log(nullptr, AV_LOG_ERROR, "lost\n");
    errors.take();
    av_log(nullptr, AV_LOG_ERROR, "told\n");
    QCOMPARE(errors.take(), QByteArray("told\n"));
}

ORVANTIS_TEST(FfmpegLogTest)
#include "ffmpeglog_test.moc"
