#pragma once

#include <QString>

// Operating-system chores.
class OsHelper {
public:
    static OsHelper* instance();

    // Where the desktop's autostart entry lives.
    QString autostartPath = QStringLiteral("/etc/xdg/autostart/velora.desktop");

    // Rewrites the autostart entry, enabled as GS::autostart says.
    bool setAutostart();

private:
    OsHelper();
};
