#include "blobfacade.h"
#include "configfileerror.h"
#include "messageoutput.h"

#include <QApplication>
#include <QDebug>
#include <QStandardPaths>

#include <cstdio>

// Never deleted: the process has no orderly destruction of its object tree. Kept in a
// global so that leak checkers see it as the root it is.
BlobFacade* theFacade = nullptr;

int main(int argc, char** argv)
{
    qInstallMessageHandler(myMessageOutput);
    printf("log path: %s\n",
           QStandardPaths::writableLocation(QStandardPaths::AppLocalDataLocation).toLocal8Bit().constData());
    QApplication app(argc, argv);
    try {
        theFacade = new BlobFacade(argc, argv);
        if (!theFacade->start())
            return 0;
    } catch (const ConfigFileError& e) {
        qCritical().noquote() << "Cannot run with this file:" << e.what();
        fprintf(stderr, "velora: %s\n", e.what());
        return e.exitStatus();
    }
    return app.exec();
}
