// Windows are not handed out by a dialogue on this system.
#include "sharedwindow.h"

struct SharedWindow::Impl { };

SharedWindow::SharedWindow(QObject* parent) : QObject(parent) { }

SharedWindow::~SharedWindow() = default;

bool SharedWindow::isUsual()
{
    return false;
}

QString SharedWindow::choose(Choice /*choice*/)
{
    return QStringLiteral("the desktop hands out no windows on this system");
}

quint32 SharedWindow::node() const
{
    return 0;
}

QSize SharedWindow::measure()
{
    return QSize();
}

QString SharedWindow::remark() const
{
    return QString();
}

int SharedWindow::connection() const
{
    return -1;
}

void SharedWindow::releaseConnection() { }

void SharedWindow::close() { }
