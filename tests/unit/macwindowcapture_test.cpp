// The window id of the command line: parsing and permission.
#include "macwindowcapture.h"
#include "testregistry.h"

#include "fakeplatform.h"
#include "logcapture.h"

#include <QTest>

#include <vector>

namespace {

const QString emptyIdWarning = QStringLiteral("macOS CoreGraphics capture received an empty window id.");
const QString askingWarning
    = QStringLiteral("macOS screen recording permission is not currently granted; requesting access.");
const QString refusedWarning
    = QStringLiteral("macOS screen recording permission was not granted; window capture will not produce frames.");

QString requestedLine(const QString& id, const QString& parsed, const QString& ok)
{
    return QStringLiteral("macOS CoreGraphics capture requested for window id \"%1\" parsed %2 ok %3")
        .arg(id, parsed, ok);
}

QString preflightLine(bool held)
{
    return QStringLiteral("macOS screen recording preflight before request ")
        + (held ? QStringLiteral("true") : QStringLiteral("false"));
}

QString resultLine(bool granted, bool heldNow)
{
    const auto text = [](bool value) { return value ? QStringLiteral("true") : QStringLiteral("false"); };
    return QStringLiteral("macOS screen recording request result %1 preflight after request %2")
        .arg(text(granted), text(heldNow));
}

QString configuredLine(const QString& id)
{
    return QStringLiteral("macOS CoreGraphics capture configured for window ") + id;
}

}

class MacWindowCaptureTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { fakeplatform::reset(); }

    void badIdIsWarnedOf_data();
    void badIdIsWarnedOf();
    void goodIdConfigures_data();
    void goodIdConfigures();

    void heldPermissionIsNotAskedFor();
    void missingPermissionIsAskedFor_data();
    void missingPermissionIsAskedFor();
    void refusedPermissionLeavesItInvalid_data();
    void refusedPermissionLeavesItInvalid();

    void invalidCaptureReturnsNothing();
    void windowIsClosedWithTheCapture();
};

void MacWindowCaptureTest::badIdIsWarnedOf_data()
{
    QTest::addColumn<QString>("id");
    QTest::addColumn<QString>("parsed");
    QTest::addColumn<QString>("ok");
    const QString no = QStringLiteral("false");
    const QString yes = QStringLiteral("true");
    const QString zero = QStringLiteral("0");
    QTest::newRow("0") << QStringLiteral("0") << zero << yes;
    QTest::newRow("abc") << QStringLiteral("abc") << zero << no;
    QTest::newRow("empty") << QString() << zero << no;
    QTest::newRow("blank") << QStringLiteral(" ") << zero << no;
    QTest::newRow("negative") << QStringLiteral("-42") << zero << no;
    QTest::newRow("fraction") << QStringLiteral("42.0") << zero << no;
    QTest::newRow("hexadecimal") << QStringLiteral("0x2a") << zero << no;
    QTest::newRow("number and text") << QStringLiteral("42 windows") << zero << no;
    QTest::newRow("64 bits and one") << QStringLiteral("18446744073709551616") << zero << no;
}

void MacWindowCaptureTest::badIdIsWarnedOf()
{
    QFETCH(QString, id);
    QFETCH(QString, parsed);
    QFETCH(QString, ok);
    const LogCapture log;
    const MacWindowCapture capture(id);
    QVERIFY(!capture.isValid());
    QCOMPARE(log.messages(), (QStringList{requestedLine(id, parsed, ok), emptyIdWarning}));
    QCOMPARE(log.messages(QtDebugMsg), QStringList{requestedLine(id, parsed, ok)});
    QCOMPARE(log.messages(QtWarningMsg), QStringList{emptyIdWarning});
    QCOMPARE(fakeplatform::state().preflightCalls, 0);
    QVERIFY(fakeplatform::state().openedWindows.empty());
}

void MacWindowCaptureTest::goodIdConfigures_data()
{
    QTest::addColumn<QString>("id");
    QTest::addColumn<QString>("parsed");
    QTest::addColumn<quint32>("window");
    QTest::newRow("42") << QStringLiteral("42") << QStringLiteral("42") << 42u;
    QTest::newRow("2^32 + 42 is cut to 32 bits")
        << QStringLiteral("4294967338") << QStringLiteral("4294967338") << 42u;
    QTest::newRow("2^32 is not 0, though its low bits are")
        << QStringLiteral("4294967296") << QStringLiteral("4294967296") << 0u;
    QTest::newRow("largest of 32 bits") << QStringLiteral("4294967295") << QStringLiteral("4294967295")
                                        << 4294967295u;
    QTest::newRow("largest of 64 bits") << QStringLiteral("18446744073709551615")
                                        << QStringLiteral("18446744073709551615") << 4294967295u;
    QTest::newRow("blanks around") << QStringLiteral(" 42 ") << QStringLiteral("42") << 42u;
    QTest::newRow("leading zeros") << QStringLiteral("0042") << QStringLiteral("42") << 42u;
}

void MacWindowCaptureTest::goodIdConfigures()
{
    QFETCH(QString, id);
    QFETCH(QString, parsed);
    QFETCH(quint32, window);
    const LogCapture log;
    const MacWindowCapture capture(id);
    QVERIFY(capture.isValid());
    const QStringList expected{requestedLine(id, parsed, QStringLiteral("true")), preflightLine(true),
        configuredLine(QString::number(window))};
    QCOMPARE(log.messages(), expected);
    QCOMPARE(log.messages(QtDebugMsg), expected);
    QCOMPARE(fakeplatform::state().openedWindows, std::vector<quint32>{window});
}

void MacWindowCaptureTest::heldPermissionIsNotAskedFor()
{
    const MacWindowCapture capture(QStringLiteral("42"));
    QCOMPARE(fakeplatform::state().preflightCalls, 1);
    QCOMPARE(fakeplatform::state().requestCalls, 0);
}

void MacWindowCaptureTest::missingPermissionIsAskedFor_data()
{
    QTest::addColumn<bool>("heldAfterwards");
    QTest::newRow("granted and held") << true;
    QTest::newRow("granted, the later preflight does not decide") << false;
}

void MacWindowCaptureTest::missingPermissionIsAskedFor()
{
    QFETCH(bool, heldAfterwards);
    fakeplatform::state().preflightAnswers = {false, heldAfterwards};
    fakeplatform::state().requestAnswer = true;
    const LogCapture log;
    const MacWindowCapture capture(QStringLiteral("42"));
    QVERIFY(capture.isValid());
    QCOMPARE(log.messages(),
        (QStringList{requestedLine(QStringLiteral("42"), QStringLiteral("42"), QStringLiteral("true")),
            preflightLine(false), askingWarning, resultLine(true, heldAfterwards),
            configuredLine(QStringLiteral("42"))}));
    QCOMPARE(log.messages(QtWarningMsg), QStringList{askingWarning});
    QCOMPARE(fakeplatform::state().requestCalls, 1);
}

void MacWindowCaptureTest::refusedPermissionLeavesItInvalid_data()
{
    QTest::addColumn<bool>("heldAfterwards");
    QTest::newRow("refused") << false;
    QTest::newRow("refused, the later preflight does not decide") << true;
}

void MacWindowCaptureTest::refusedPermissionLeavesItInvalid()
{
    QFETCH(bool, heldAfterwards);
    fakeplatform::state().preflightAnswers = {false, heldAfterwards};
    fakeplatform::state().requestAnswer = false;
    const LogCapture log;
    const MacWindowCapture capture(QStringLiteral("42"));
    QVERIFY(!capture.isValid());
    QCOMPARE(log.messages(),
        (QStringList{requestedLine(QStringLiteral("42"), QStringLiteral("42"), QStringLiteral("true")),
            preflightLine(false), askingWarning, resultLine(false, heldAfterwards), refusedWarning}));
    QCOMPARE(log.messages(QtWarningMsg), (QStringList{askingWarning, refusedWarning}));
    QVERIFY(fakeplatform::state().openedWindows.empty());
}

void MacWindowCaptureTest::invalidCaptureReturnsNothing()
{
    fakeplatform::state().image = [](int) { return fakeplatform::solidImage(4, 4, qRgb(1, 2, 3)); };
    fakeplatform::state().pointer = [] { return QPointF(1, 1); };
    const MacWindowCapture capture(QStringLiteral("0"));
    const LogCapture log;
    QRect bounds(1, 2, 3, 4);
    QVERIFY(capture.capture(&bounds).isNull());
    QCOMPARE(bounds, QRect(1, 2, 3, 4));
    QVERIFY(!capture.captureWindow().pointer);
    QCOMPARE(log.messages(), QStringList());
}

void MacWindowCaptureTest::windowIsClosedWithTheCapture()
{
    {
        const MacWindowCapture capture(QStringLiteral("42"));
        QCOMPARE(fakeplatform::openWindows().load(), 1);
    }
    QCOMPARE(fakeplatform::openWindows().load(), 0);
}

ORVANTIS_TEST(MacWindowCaptureTest)
#include "macwindowcapture_test.moc"
