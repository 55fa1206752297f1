#include "blobfacade.h"
#include "configfileerror.h"
#include "messageoutput.h"
#include "procedurefactory.h"

#include <QApplication>
#include <QDebug>
#include <QStandardPaths>

#include <cstdio>

// Never deleted: the process has no orderly destruction of its object tree. Kept in a
// global so that leak checkers see it as the root it is.
BlobFacade* theFacade = nullptr;

namespace {

// The one place where a file the system cannot run with ends the process. Readers raise
// the error wherever they run on the main thread: in the constructor (velora.conf), while
// waiting for the device (cyusb.conf) or at the sensor's start (sensor.conf). The status is
// the error's own: 1, as a bad device list has always ended the process, unless a reader
// names another.
int endWith(const ConfigFileError& e)
{
    qCritical().noquote() << "Cannot run with this file:" << e.what();
    fprintf(stderr, "velora: %s\n", e.what());
    fflush(stdout);
    fflush(stderr);
    return e.exitStatus();
}

} // namespace

int main(int argc, char** argv)
{
    qInstallMessageHandler(myMessageOutput);
    printf("log path: %s\n",
           QStandardPaths::writableLocation(QStandardPaths::AppLocalDataLocation).toLocal8Bit().constData());
    QApplication app(argc, argv);
    try {
        theFacade = new BlobFacade(argc, argv);
        theFacade->procedureFactory = new ProcedureFactory();
        if (!theFacade->start())
            return 0;
        return app.exec();
    } catch (const ConfigFileError& e) {
        return endWith(e);
    }
}
