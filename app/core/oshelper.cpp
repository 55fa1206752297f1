#include "oshelper.h"

#include "globalsettings.h"

#include <QDebug>
#include <QFile>
#include <QTextStream>

#include <atomic>

OsHelper* OsHelper::instance()
{
    static std::atomic<OsHelper*> self{nullptr};
    if (!self)
        self = new OsHelper();
    return self;
}

OsHelper::OsHelper()
{
    qDebug() << "Making a new instance of oshelper";
}

bool OsHelper::setAutostart()
{
    QFile file(autostartPath);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Text))
        return false;
    QTextStream out(&file);
    out << "[Desktop Entry]\n"
        << "Type=Application\n"
        << "Exec=/usr/local/bin/Velora/Velora.sh\n"
        << "Hidden=false\n"
        << "NoDisplay=false\n"
        << (GS::instance()->autostart ? "X-GNOME-Autostart-enabled=true\n" : "X-GNOME-Autostart-enabled=false\n")
        << "Name=Velora\n"
        << "Comment=\n";
    return true;
}
