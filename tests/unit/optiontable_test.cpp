// The one table of record-window's options against all that repeats it: --help, the man page, the completions.
#include "optiontable.h"

#include "testregistry.h"

#include <QFile>
#include <QRegularExpression>
#include <QTest>

class OptionTableTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void everyOptionIsToldOnce();
    void helpFitsTheTerminal();
    void pagesHaveTheSameOptions_data();
    void pagesHaveTheSameOptions();
    void manPageTellsTheSameValuesInTheSameOrder();
};

namespace {

QString contents(const QString& path)
{
    QFile file(QStringLiteral(SOURCES "/") + path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

QStringList captured(const QString& text, const QString& expression)
{
    QStringList found;
    auto matches = QRegularExpression(expression, QRegularExpression::MultilineOption).globalMatch(text);
    while (matches.hasNext())
        found.append(matches.next().captured(1));
    return found;
}

QStringList names()
{
    QStringList result;
    for (const OptionGroup& group : optionGroups()) {
        for (const OptionEntry& option : group.options)
            result.append(QLatin1String(option.name));
    }
    return result;
}

QStringList sorted(QStringList list)
{
    list.removeDuplicates();
    list.sort();
    return list;
}

}

void OptionTableTest::everyOptionIsToldOnce()
{
    QCOMPARE(names().size(), sorted(names()).size());
    QCOMPARE(captured(helpText(), QStringLiteral("^  --([a-z0-9-]+)")), names());
    for (const OptionGroup& group : optionGroups()) {
        for (const OptionEntry& option : group.options)
            QVERIFY2(QByteArray(option.text).endsWith('.'), option.name);
    }
}

void OptionTableTest::helpFitsTheTerminal()
{
    for (const QString& line : helpText().split(QLatin1Char('\n'))) {
        QVERIFY2(line.size() <= 80, qPrintable(line));
        QVERIFY2(!line.endsWith(QLatin1Char(' ')), qPrintable(line));
    }
    QVERIFY(captured(helpText(), QStringLiteral("^(  record-window )")).size() <= 3);
}

void OptionTableTest::pagesHaveTheSameOptions_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("expression");
    QTest::newRow("man page") << "docs/man/record-window.1"
                              << "^\\.It Fl -([a-z0-9-]+)";
    // In bash's also where the values are completed.
    QTest::newRow("bash") << "launcher/completion/record-window.bash"
                          << "(?<=[ |])--([a-z0-9-]{2,})";
    QTest::newRow("zsh") << "launcher/completion/_record-window"
                         << "^    '(?:\\*|\\(- \\*\\)'\\{)?--([a-z0-9-]+)(?=[[,])";
}

void OptionTableTest::pagesHaveTheSameOptions()
{
    QFETCH(QString, path);
    QFETCH(QString, expression);
    QString text = contents(path);
    text.remove(QRegularExpression(QStringLiteral("^#.*$"), QRegularExpression::MultilineOption));
    QCOMPARE(sorted(captured(text, expression)), sorted(names()));
}

void OptionTableTest::manPageTellsTheSameValuesInTheSameOrder()
{
    QStringList expected;
    for (const OptionGroup& group : optionGroups()) {
        expected.append(QStringLiteral(".Ss ") + QLatin1String(group.title));
        for (const OptionEntry& option : group.options)
            expected.append(QStringLiteral(".It Fl -%1 %2")
                                .arg(QLatin1String(option.name), QLatin1String(option.value))
                                .trimmed());
    }
    QStringList told
        = captured(contents(QStringLiteral("docs/man/record-window.1")), QStringLiteral("^(\\.(?:Ss|It Fl) .*)$"));
    QVERIFY(told.removeOne(QStringLiteral(".Ss JSON")));
    for (QString& line : told) {
        line.remove(QRegularExpression(QStringLiteral(" , h$"))); // the short form
        line.remove(QRegularExpression(QStringLiteral("(?<= )(?:Ar|Cm) ")));
    }
    QCOMPARE(told, expected);
}

ORVANTIS_TEST(OptionTableTest)
#include "optiontable_test.moc"
