// OptionReader: the values of record-window's options, checked one by one.
#pragma once

#include "options.h"

#include <QCommandLineParser>

#include <initializer_list>

/// Lives as long as the parser. The first refusal is kept, later ones are dropped.
class OptionReader {
public:
    explicit OptionReader(const QCommandLineParser& parser) : parser_(parser) { }

    QString error() const { return error_; }

    QString text(const char* name, const QString& defaultText = QString()) const
    {
        const QLatin1String key(name);
        return parser_.isSet(key) ? parser_.value(key) : defaultText;
    }
    bool isSet(const char* name) const { return parser_.isSet(QLatin1String(name)); }

    WindowWish window();
    AudioWish audio();
    std::optional<QSize> canvas();
    std::optional<qint64> milliseconds(const char* name);
    int countdown();
    QList<PlannedClick> clicks();
    void checkPointer();
    /// madeDirectory: will be there by the time that the files are made; can be empty.
    ExtraWishes extras(const QString& madeDirectory);

    /// Refuses the command line when any option is given beside that one but these.
    void refuseAllBeside(const char* option, std::initializer_list<const char*> allowed);

    /// An empty message refuses nothing.
    void refuse(const QString& message)
    {
        if (error_.isEmpty())
            error_ = message;
    }

private:
    quint32 windowId();
    qint64 processId(const QString& digits);

    const QCommandLineParser& parser_;
    QString error_;
};
