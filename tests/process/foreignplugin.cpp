// A plug-in that says so when it is loaded. It claims to be Qt's platform "minimal", and another one that nobody has.
#include <QObject>

#include <cstdio>

class ForeignPlugIn : public QObject {
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "org.qt-project.Qt.QPA.QPlatformIntegrationFactoryInterface.5.3" FILE "foreignplugin.json")

public:
    ForeignPlugIn() { std::fputs("the foreign plug-in is loaded\n", stderr); }
};

#include "foreignplugin.moc"
