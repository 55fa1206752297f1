// A thousand random command bytes at the running system, as fast as a menu may send them,
// with calibrations that stand-ins finish at random: nothing crashes or hangs, the status
// file is never seen half written, and the service still answers at the end.
#include "emulatedfacade.h"
#include "ipclistener.h"

#include <QFile>
#include <QRegularExpression>

#include <atomic>
#include <random>
#include <thread>

namespace {

bool writeCommand(const QString& path, char byte)
{
    QFile f(path + ".new");
    if (!f.open(QIODevice::WriteOnly))
        return false;
    f.write(QByteArray(1, byte) + "\n");
    f.close();
    return QFile::rename(f.fileName(), path);
}

bool waitUntilGone(const QString& path, int ms)
{
    for (int waited = 0; QFile::exists(path); waited += 1) {
        if (waited > ms)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

TEST(CommandStorm, TheServiceSurvivesAndStillAnswers)
{
    EmulatedFacade* facade = EmulatedFacade::startOnce();
    const GS* gs = GS::instance();
    facade->factory.script.maxDelayMs = 200;
    QFile::copy(QString::fromStdString(EmulatedFacade::calibrationFile(7)),
                QString::fromStdString(gs->stylusCalibrationPath));
    facade->factory.script.result = Calibration::read(EmulatedFacade::calibrationFile(6).c_str());
    facade->onIpcMessageReceived(3);
    facade->settle(1000);

    const QString command = gs->commandFilePath;
    std::atomic<bool> done{false};
    std::atomic<int> reads{0}, torn{0}, sent{0};
    std::thread reader([&] {
        static const QRegularExpression whole("^Result=-?[0-9]+$");
        while (!done) {
            QFile f(QString::fromStdString(gs->statusFilePath));
            if (f.open(QIODevice::ReadOnly)) {
                ++reads;
                if (!whole.match(QString::fromLatin1(f.readAll())).hasMatch())
                    ++torn;
            }
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    });
    std::thread menu([&] {
        std::mt19937 random(2024);
        const char calibrations[] = {'a', 'm', 'w', 'q', '4'};
        for (int i = 0; i < 1000; ++i) {
            char byte;
            if (i % 20 == 10) {
                byte = calibrations[random() % sizeof calibrations];
            } else {
                // Quitting ends the service, and an empty first line is no command at all.
                do
                    byte = char(random() % 256);
                while (byte == 'Q' || byte == '\n');
            }
            if (!waitUntilGone(command, 10000) || !writeCommand(command, byte))
                break;
            ++sent;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        done = true;
    });
    while (!done) {
        QCoreApplication::processEvents();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    menu.join();
    reader.join();
    EXPECT_EQ(sent, 1000) << "the listener stopped taking commands";
    EXPECT_GT(reads, 1000);
    EXPECT_EQ(torn, 0);

    // Whatever is still running finishes; then a plain query is answered.
    facade->settle(2000);
    ASSERT_TRUE(waitUntilGone(command, 10000));
    QFile::remove(gs->answerFilePath);
    ASSERT_TRUE(writeCommand(command, 'h'));
    for (int i = 0; i < 1000 && !QFile::exists(gs->answerFilePath); ++i) {
        QCoreApplication::processEvents();
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_TRUE(QFile::exists(gs->answerFilePath));
}

} // namespace
