// Every way in which opening the output fails: the log line, the result, and that nothing stays behind.
#include "encoderchoice.h"
#include "ffmpegfaults.h"
#include "idlerecorder.h"
#include "mediafile.h"
#include "mp4boxes.h"
#include "testregistry.h"

#include <QFileInfo>
#include <QTest>

using namespace ffmpegfaults;

namespace {

const auto fallbackWarning
    = QStringLiteral("Recording with FFV1 fallback because no preferred video encoder was opened.");

/// One failing call. The row's expected log line contains the status.
struct Fault {
    Call call = Call::Last;
    int status = 0;
    int nth = 1;
    bool withoutMpeg4 = false; ///< the fallback is what fails
};

}

Q_DECLARE_METATYPE(Fault)

class OpenFaultsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { reset(); }
    void cleanup() { reset(); }

    void openingFails_data();
    void openingFails();
    void openingFailsAfterTheHeader_data();
    void openingFailsAfterTheHeader();
    void candidateIsSkipped_data();
    void candidateIsSkipped();

    void unknownNameIsSkippedSilently();
    void nameThatFindsAForbiddenEncoderIsSkipped_data();
    void nameThatFindsAForbiddenEncoderIsSkipped();
    void encoderWithHardwareFormatsOnlyIsSkipped();
    void encoderWithoutAListNeedsNoSoftwareFormat();
    void everythingFailsAtOnce();
    void failedOpeningCanBeClosedByTheDestructor();
    void fileWithoutFragmentsIsNone_data();
    void fileWithoutFragmentsIsNone();
};

void OpenFaultsTest::openingFails_data()
{
    QTest::addColumn<Fault>("fault");
    QTest::addColumn<QStringList>("warnings");
    QTest::addColumn<QString>("critical");
    const auto row = [](const char* name, const Fault& fault, const QStringList& warnings, const char* critical) {
        QTest::newRow(name) << fault << warnings << QString::fromLatin1(critical);
    };

    row("no container", {Call::AllocOutputContext, AVERROR(ENOMEM)}, {},
        "Unable to allocate FFmpeg output context: \"Cannot allocate memory\"");
    row("no container and no error", {Call::AllocOutputContext, 0}, {},
        "Unable to allocate FFmpeg output context: \"Success\"");
    row("no fallback container", {Call::AllocOutputContext, AVERROR(EINVAL), 2, true}, {},
        "Unable to allocate FFmpeg fallback output context: \"Invalid argument\"");
    row("no fallback container and no error", {Call::AllocOutputContext, 0, 2, true}, {},
        "Unable to allocate FFmpeg fallback output context: \"Success\"");
    row("no fallback codec context", {Call::AllocCodecContext, 0, 1, true}, {},
        "Unable to allocate FFmpeg fallback codec context.");
    row("fallback encoder not opened", {Call::OpenCodec, AVERROR_EXTERNAL, 1, true}, {},
        "Unable to open FFmpeg FFV1 fallback encoder: \"Generic error in an external library\"");
    row("no stream", {Call::NewStream, 0}, {}, "Unable to create FFmpeg video stream.");
    row("no stream in the fallback", {Call::NewStream, 0, 1, true}, {fallbackWarning},
        "Unable to create FFmpeg video stream.");
    row("parameters not copied", {Call::CopyParameters, AVERROR(ENOMEM)}, {},
        "Unable to copy FFmpeg codec parameters: \"Cannot allocate memory\"");
    row("file not opened", {Call::OpenFile, AVERROR(EACCES)}, {},
        "Unable to open video output file \"%1\" : \"Permission denied\"");
    row("file not opened in the fallback", {Call::OpenFile, AVERROR(EROFS), 1, true}, {fallbackWarning},
        "Unable to open video output file \"%1\" : \"Read-only file system\"");
    row("no way to the file", {Call::AllocFileContext}, {},
        "Unable to open video output file \"%1\" : \"Cannot allocate memory\"");
    row("header not written", {Call::WriteHeader, AVERROR(EIO)}, {},
        "Unable to write FFmpeg output header: \"Input/output error\"");
}

void OpenFaultsTest::openingFails()
{
    QFETCH(const Fault, fault);
    QFETCH(const QStringList, warnings);
    QFETCH(const QString, critical);
    IdleRecorder recorder;
    const qsizetype descriptors = openDescriptors();
    if (fault.withoutMpeg4)
        surroundings().hiddenEncoders = {"mpeg4"};
    failOnce(fault.call, fault.status, fault.nth);

    QVERIFY(!recorder->openOutput());
    QCOMPARE(recorder.warnings(), warnings);
    const QString path
        = recorder.filePath(fault.withoutMpeg4 ? QStringLiteral("clip.mkv") : QStringLiteral("clip.mp4"));
    QCOMPARE(recorder->outputPath(), path);
    QCOMPARE(recorder.criticals(), QStringList{QString(critical).replace(QLatin1String("%1"), path)});
    QCOMPARE(recorder.log().messages(QtDebugMsg), QStringList());
    QVERIFY(!recorder->headerWritten());

    recorder.log().clear();
    QVERIFY(!recorder.encode({0}));
    recorder->closeOutput();
    QCOMPARE(recorder.log().messages(), QStringList());
    QVERIFY(recorder.isClosed());
    QCOMPARE(calls(Call::WriteTrailer), 0);
    QCOMPARE(openDescriptors(), descriptors);
}

void OpenFaultsTest::openingFailsAfterTheHeader_data()
{
    QTest::addColumn<Fault>("fault");
    QTest::addColumn<QString>("critical");
    QTest::newRow("no frame") << Fault{Call::AllocFrame} << QStringLiteral("Unable to allocate FFmpeg video frame.");
    QTest::newRow("no frame buffer") << Fault{Call::GetFrameBuffer,
        AVERROR(
            ENOMEM)} << QStringLiteral("Unable to allocate FFmpeg video frame buffer: \"Cannot allocate memory\"");
    QTest::newRow("no converter") << Fault{Call::GetConverter}
                                  << QStringLiteral("Unable to create FFmpeg pixel conversion context.");
}

/// The header is there, so the file gets its end: a file without frames, but a whole one.
void OpenFaultsTest::openingFailsAfterTheHeader()
{
    QFETCH(const Fault, fault);
    QFETCH(const QString, critical);
    IdleRecorder recorder;
    const qsizetype descriptors = openDescriptors();
    failOnce(fault.call, fault.status, fault.nth);

    QVERIFY(!recorder->openOutput());
    QVERIFY(recorder->headerWritten());
    QCOMPARE(recorder.criticals(), QStringList{critical});
    QVERIFY(recorder.warnings().isEmpty());
    QCOMPARE(recorder.log().messages(QtDebugMsg), QStringList());

    recorder.log().clear();
    recorder->closeOutput();
    QCOMPARE(recorder.log().messages(), QStringList());
    QVERIFY(recorder.isClosed());
    QCOMPARE(calls(Call::WriteTrailer), 1);
    QCOMPARE(openDescriptors(), descriptors);
    QCOMPARE(
        mp4boxes::types(mp4boxes::parseFile(recorder->outputPath())), (QList<QByteArray>{"ftyp", "moov", "mfra"}));
    QVERIFY(MediaFile(recorder->outputPath()).isValid());
}

void OpenFaultsTest::candidateIsSkipped_data()
{
    QTest::addColumn<Fault>("fault");
    QTest::addColumn<QString>("warning");
    QTest::newRow("no codec context") << Fault{Call::AllocCodecContext}
                                      << QStringLiteral("Unable to allocate codec context for \"mpeg4\"");
    QTest::newRow("not opened") << Fault{Call::OpenCodec, AVERROR_ENCODER_NOT_FOUND}
                                << QStringLiteral("Unable to open video encoder \"mpeg4\" : \"Encoder not found\"");
}

/// The fallback records in its place.
void OpenFaultsTest::candidateIsSkipped()
{
    QFETCH(const Fault, fault);
    QFETCH(const QString, warning);
    IdleRecorder recorder;
    failOnce(fault.call, fault.status, fault.nth);
    QVERIFY(recorder.record({0, 41}));
    QCOMPARE(recorder.warnings(), (QStringList{warning, fallbackWarning}));
    QVERIFY(recorder.criticals().isEmpty());
    QCOMPARE(recorder->videoEncoderName(), QStringLiteral("ffv1"));
    QCOMPARE(MediaFile(recorder.filePath(QStringLiteral("clip.mkv"))).frames().size(), 2);
}

void OpenFaultsTest::unknownNameIsSkippedSilently()
{
    surroundings().hiddenEncoders = {"mpeg4"};
    IdleRecorder recorder;
    QVERIFY(recorder->allocateContainer());
    QVERIFY(!recorder->tryVideoEncoder(QStringLiteral("mpeg4")));
    QCOMPARE(recorder.log().messages(), QStringList());
}

void OpenFaultsTest::nameThatFindsAForbiddenEncoderIsSkipped_data()
{
    QTest::addColumn<int>("id");
    QTest::newRow("H.264") << int(AV_CODEC_ID_H264);
    QTest::newRow("HEVC") << int(AV_CODEC_ID_HEVC);
}

void OpenFaultsTest::nameThatFindsAForbiddenEncoderIsSkipped()
{
    QFETCH(const int, id);
    AVCodec forbidden = *avcodec_find_encoder_by_name("mpeg4");
    forbidden.id = AVCodecID(id);
    surroundings().replacedEncoder = "mpeg4";
    surroundings().replacement = &forbidden;
    IdleRecorder recorder;
    QVERIFY(recorder.record({0}));
    QCOMPARE(calls(Call::OpenCodec), 1); // the fallback's
    QCOMPARE(recorder.warnings(),
        (QStringList{QStringLiteral("Skipping forbidden video encoder \"mpeg4\""), fallbackWarning}));
    QCOMPARE(MediaFile(recorder.filePath(QStringLiteral("clip.mkv"))).videoStream()->codecId, AV_CODEC_ID_FFV1);
}

void OpenFaultsTest::encoderWithHardwareFormatsOnlyIsSkipped()
{
    surroundings().hardwareFormatsOnly = true;
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    surroundings().hardwareFormatsOnly = false;
    QCOMPARE(recorder.warnings(),
        (QStringList{
            QStringLiteral("Skipping video encoder with no software input format: \"mpeg4\""), fallbackWarning}));
    QCOMPARE(recorder->videoEncoderName(), QStringLiteral("ffv1"));
}

/// It does not say what it takes; the usual format is tried.
void OpenFaultsTest::encoderWithoutAListNeedsNoSoftwareFormat()
{
    surroundings().hardwareFormatsOnly = true;
    const auto format = encoderchoice::inputPixelFormat(std::nullopt);
    QVERIFY(format.has_value());
    QCOMPARE(int(*format), int(AV_PIX_FMT_YUV420P));
}

void OpenFaultsTest::everythingFailsAtOnce()
{
    surroundings().hiddenEncoders = {"mpeg4", "ffv1"};
    failFrom(Call::FindEncoderById, 0);
    IdleRecorder recorder;
    QVERIFY(!recorder->openOutput());
    QVERIFY(recorder.warnings().isEmpty());
    QCOMPARE(recorder.criticals(),
        QStringList{QStringLiteral("No preferred video encoder opened, and FFmpeg FFV1 fallback is unavailable.")});
    recorder->closeOutput();
    QVERIFY(recorder.isClosed());
    QVERIFY(!QFileInfo::exists(recorder.filePath(QStringLiteral("clip.mkv"))));
}

void OpenFaultsTest::failedOpeningCanBeClosedByTheDestructor()
{
    const qsizetype descriptors = openDescriptors();
    {
        IdleRecorder recorder;
        failOnce(Call::WriteHeader, AVERROR(EIO));
        QVERIFY(!recorder->openOutput());
        QVERIFY(recorder->formatContext()->pb);
        recorder.log().clear();
        recorder.destroy();
        QVERIFY(recorder.wasQuiet());
    }
    QCOMPARE(calls(Call::WriteTrailer), 0);
    QCOMPARE(openDescriptors(), descriptors);
}

void OpenFaultsTest::fileWithoutFragmentsIsNone_data()
{
    QTest::addColumn<QByteArray>("option");
    QTest::newRow("flags") << QByteArray("movflags");
    QTest::newRow("duration") << QByteArray("frag_duration");
}

/// It could be played after an orderly end only.
void OpenFaultsTest::fileWithoutFragmentsIsNone()
{
    QFETCH(const QByteArray, option);
    IdleRecorder recorder;
    surroundings().lostMuxerOption = option;
    QVERIFY(!recorder->openOutput());
    QCOMPARE(recorder.criticals(),
        QStringList{QStringLiteral("Unable to write FFmpeg output header: \"Cannot allocate memory\"")});
    recorder->closeOutput();
    QVERIFY(recorder.isClosed());
    QCOMPARE(calls(Call::WriteTrailer), 0);
    QCOMPARE(QFileInfo(recorder->outputPath()).size(), 0);
}

ORVANTIS_TEST(OpenFaultsTest)
#include "openfaults_test.moc"
