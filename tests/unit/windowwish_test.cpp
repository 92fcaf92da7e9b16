// Which windows record-window takes for the one that is meant, and how it shows them.
#include "windowwish.h"

#include "plaintext.h"
#include "testregistry.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>

class WindowWishTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void titleOrProcessChooses_data();
    void titleOrProcessChooses();
    void listShowsNoControlCharacters();
    void listTellsWhatIsNotShown();
    void jsonKeepsTheTitle();
    void plainTextIsHarmless_data();
    void plainTextIsHarmless();
};

namespace {

const QList<WindowInfo> windows{
    {1, 10, "editor", "Notes (1) - Editor", QSize(800, 600), true},
    {2, 10, "editor", "Letter - Editor", QSize(640, 480), true},
    {3, 20, "browser", "Notes on birds", QSize(1000, 700), false},
};

}

void WindowWishTest::titleOrProcessChooses_data()
{
    using By = WindowWish::By;
    QTest::addColumn<WindowWish>("wish");
    QTest::addColumn<QList<quint32>>("ids");
    const auto title = [](const char* text) { return WindowWish{By::Title, 0, QString::fromUtf8(text), 0}; };
    QTest::newRow("part, of any case") << title("lEtTer") << QList<quint32>{2};
    QTest::newRow("several") << title("notes") << QList<quint32>{1, 3};
    QTest::newRow("no expression") << title("(1)") << QList<quint32>{1};
    QTest::newRow("expression") << title("/^Notes.*Editor$/") << QList<quint32>{1};
    QTest::newRow("expression with case") << title("/notes/") << QList<quint32>{};
    QTest::newRow("one slash is text") << title("/") << QList<quint32>{};
    QTest::newRow("process") << WindowWish{By::Process, 0, {}, 20} << QList<quint32>{3};
    QTest::newRow("process with two") << WindowWish{By::Process, 0, {}, 10} << QList<quint32>{1, 2};
}

void WindowWishTest::titleOrProcessChooses()
{
    QFETCH(WindowWish, wish);
    QFETCH(QList<quint32>, ids);
    QList<quint32> found;
    for (const WindowInfo& window : matchingWindows(windows, wish))
        found.append(window.id);
    QCOMPARE(found, ids);
}

void WindowWishTest::listShowsNoControlCharacters()
{
    const QString table = windowTable({{0x2a, 7, "a\nb", "x\033]0;evil\007\u202Ey", QSize(3, 4), true}});
    QCOMPARE(table.count(QLatin1Char('\n')), 2);
    QVERIFY2(table.contains("0x2a        3x4          7 a?b                     x?]0;evil??y\n"), qPrintable(table));
}

void WindowWishTest::listTellsWhatIsNotShown()
{
    const QString table = windowTable(windows);
    QVERIFY2(table.contains("  Notes on birds  (not shown)\n"), qPrintable(table));
    QCOMPARE(table.count("(not shown)"), 1);
}

void WindowWishTest::jsonKeepsTheTitle()
{
    const QString title = QStringLiteral("a\n\"b\"\033");
    const QByteArray json = windowJson({{42, 0, {}, title, QSize(3, 4), true}});
    QCOMPARE(json.count('\n'), 1);
    const QJsonObject window = QJsonDocument::fromJson(json).array().first().toObject();
    QCOMPARE(window.value("title").toString(), title);
    QCOMPARE(window.value("window").toInt(), 42);
    QVERIFY(window.value("pid").isNull());
    QCOMPARE(window.value("width").toInt(), 3);
}

void WindowWishTest::plainTextIsHarmless_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("shown");
    QTest::newRow("usual") << QStringLiteral("Größe 世界 🎬") << QStringLiteral("Größe 世界 🎬");
    QTest::newRow("controls") << QStringLiteral("a\033[2J\r\n\t\177\u009b") << QStringLiteral("a?[2J?????");
    QTest::newRow("direction") << QStringLiteral("a\u202Eb\u2066c") << QStringLiteral("a?b?c");
    QTest::newRow("half a pair") << QString(QChar(0xd83c)) << QStringLiteral("?");
    QTest::newRow("lines") << QStringLiteral("a\u2028b\u2029c") << QStringLiteral("a?b?c");
}

void WindowWishTest::plainTextIsHarmless()
{
    QFETCH(QString, text);
    QFETCH(QString, shown);
    QCOMPARE(plainText(text), shown);
}

ORVANTIS_TEST(WindowWishTest)
#include "windowwish_test.moc"
