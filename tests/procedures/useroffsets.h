#pragma once
// The desktop offsets the offset correction measures, as the settings hold them and as user.ini
// keeps them (its lines 5 to 10), both in that file's order: left, right, C, D, top, bottom.
#include "globalsettings.h"

#include <QFile>

#include <string>
#include <vector>

inline std::vector<double> offsetSettings()
{
    const GS* gs = GS::instance();
    return {gs->offsetLeft, gs->offsetRight, gs->offsetC, gs->offsetD, gs->offsetTop, gs->offsetBottom};
}

// None if the file cannot be read.
inline std::vector<double> savedOffsets(const std::string& userIni)
{
    QFile f(QString::fromStdString(userIni));
    std::vector<double> out;
    if (!f.open(QIODevice::ReadOnly))
        return out;
    const QList<QByteArray> lines = f.readAll().split('\n');
    for (int i = 5; i <= 10 && i < lines.size(); ++i)
        out.push_back(lines[i].toDouble());
    return out;
}
