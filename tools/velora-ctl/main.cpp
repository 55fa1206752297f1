// velora-ctl: drives the running service as its menu does, from a terminal or a script.
#include "configfileerror.h"
#include "globalsettings.h"
#include "menuchannel.h"
#include "runguard.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <QThread>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <optional>

namespace {

enum class Answer { Yes, No, OnlyIfRefused };

struct Command {
    const char* name;
    char byte;
    Answer answer;
    int timeoutSeconds;
    const char* help;
    // Its answer comes with a status of its own; otherwise the status file still holds an older one.
    bool ownStatus = true;
};

// Procedures answer when the user is done with them, hence their long waits.
const Command commands[] = {
    {"status", 'h', Answer::Yes, 5, "ask whether the service answers, and print its status"},
    {"calibrate auto", 'a', Answer::Yes, 600, "automatic calibration"},
    {"calibrate manual", 'm', Answer::Yes, 600, "manual calibration (in finger mode the automatic one first)"},
    {"calibrate bar", '4', Answer::Yes, 600, "calibration of the bar outside the screen"},
    {"finger", 'f', Answer::Yes, 30, "finger mode: laser curtain on"},
    {"stylus", 's', Answer::Yes, 30, "stylus mode: laser curtain off"},
    {"single", '5', Answer::No, 5, "single pointer: the touches move the mouse"},
    {"multi", '6', Answer::No, 5, "multi pointer: the touches are multi-touch contacts"},
    {"laser on", 'o', Answer::Yes, 5, "laser curtain on", false},
    {"laser off", 'u', Answer::Yes, 5, "laser curtain off", false},
    {"filter", 'p', Answer::Yes, 5, "swing the infra-red filter to the other side", false},
    {"align", 't', Answer::Yes, 600, "laser curtain alignment"},
    {"offset", '7', Answer::OnlyIfRefused, 10, "offset correction"},
    {"viewer", 'v', Answer::Yes, 3600, "live sensor viewer; answers when it is closed"},
    {"pause", '8', Answer::Yes, 5, "pause or resume the touch output", false},
    {"reset", '0', Answer::Yes, 5, "delete both calibrations", false},
    {"quit", 'Q', Answer::Yes, 5, "end the service", false},
};

enum Exit { Ok = 0, Unknown = 1, NoAnswer = 2, Refused = 3, Failed = 4, NoDevice = 5, GuardHeld = 6, Usage = 64 };

std::atomic<bool> stopRequested{false};

void onSignal(int)
{
    stopRequested = true;
}

void usage(FILE* to)
{
    fprintf(to,
            "Usage: velora-ctl [--timeout SECONDS] COMMAND\n"
            "       velora-ctl run [--log FILE] [-- VELORA-ARGUMENTS]\n"
            "       velora-ctl hold\n"
            "\n"
            "Drives the running Velora service through its command channel, as its menu does.\n"
            "\n"
            "Commands:\n");
    for (const Command& c : commands)
        fprintf(to, "  %-18s %s%s\n", c.name, c.help, c.answer == Answer::No ? " (no answer)" : "");
    fprintf(to,
            "\n"
            "Modes that hold the menu guard for as long as they run, so that the service runs\n"
            "without -v and ends within about a second of their end:\n"
            "  run                starts velora beside this program, writes its log to FILE (default\n"
            "                     $XDG_STATE_HOME/velora/velora.log), prints each new status, and on\n"
            "                     Ctrl+C asks the service to quit; exits with the service's status\n"
            "  hold               only holds the guard, printing each new status, until Ctrl+C\n"
            "\n"
            "A command waits for the service's answer (--timeout overrides the command's own wait)\n"
            "and prints the status in words. Exit status:\n"
            "  0 done, ready           3 refused or not calibrated   5 no device\n"
            "  1 unknown status        4 failed, cancelled or light disturbance\n"
            "  2 no answer in time     6 run/hold: another menu holds the guard   64 usage\n");
}

QString describeAfter(const Command& c, int status)
{
    if (status == 0 && QByteArray(c.name).startsWith("calibrate"))
        return "calibration done";
    return MenuChannel::describe(status);
}

MenuChannel channel()
{
    const GS* gs = GS::instance();
    return MenuChannel(gs->commandFilePath, gs->answerFilePath, QString::fromStdString(gs->statusFilePath));
}

int runCommand(const Command& c, std::optional<int> timeoutSeconds)
{
    // Holding the guard keeps a service without -v alive while the command runs; when the
    // menu or a `velora-ctl run` holds it already, that one keeps it alive.
    RunGuard guard(GS::instance()->guardKey);
    guard.tryToRun();
    MenuChannel ch = channel();
    const int waitMs = timeoutSeconds.value_or(c.timeoutSeconds) * 1000;
    const unsigned long long before = ch.statusStamp();
    if (!ch.send(c.byte, waitMs)) {
        fprintf(stderr, "velora-ctl: the service did not take the previous command; is it running?\n");
        return NoAnswer;
    }
    if (c.answer == Answer::No) {
        // Taken means seen: the command file goes within about 60 ms.
        if (!ch.waitUntilTaken(waitMs)) {
            fprintf(stderr, "velora-ctl: the service did not take the command; is it running?\n");
            return NoAnswer;
        }
        printf("sent\n");
        return Ok;
    }
    if (c.answer == Answer::OnlyIfRefused) {
        // Refused, it answers; started, it writes its statuses one right after the other.
        if (!ch.waitForAnswerOrStatus(before, waitMs)) {
            fprintf(stderr, "velora-ctl: nothing came back within %d s\n", waitMs / 1000);
            return NoAnswer;
        }
        QThread::msleep(100);
    } else if (!ch.waitForAnswer(waitMs)) {
        fprintf(stderr, "velora-ctl: no answer within %d s\n", waitMs / 1000);
        return NoAnswer;
    }
    if (!c.ownStatus) {
        printf("done\n");
        return Ok;
    }
    const std::optional<int> status = ch.status();
    if (!status) {
        fprintf(stderr, "velora-ctl: the status file holds no status\n");
        return Unknown;
    }
    printf("%s\n", qPrintable(describeAfter(c, *status)));
    return MenuChannel::exitStatusFor(*status);
}

QString defaultLogPath()
{
    const QString state = qEnvironmentVariable("XDG_STATE_HOME", QDir::homePath() + "/.local/state");
    return state + "/velora/velora.log";
}

// Prints each new status until stopped; returns the child's exit status when there is one.
int watch(QProcess* service)
{
    MenuChannel ch = channel();
    std::optional<int> shown;
    bool quitSent = false;
    QElapsedTimer sinceQuit;
    for (;;) {
        const std::optional<int> now = ch.status();
        if (now && now != shown) {
            printf("velora: %s (Result=%d)\n", qPrintable(MenuChannel::describe(*now)), *now);
            fflush(stdout);
            shown = now;
        }
        if (service) {
            if (service->waitForFinished(50)) {
                const bool normal = service->exitStatus() == QProcess::NormalExit;
                printf("velora ended (%s %d)\n", normal ? "exit status" : "signal", normal ? service->exitCode() : 0);
                return normal ? service->exitCode() : Failed;
            }
            if (stopRequested && !quitSent) {
                ch.send('Q', 1000);
                quitSent = true;
                sinceQuit.start();
            }
            if (quitSent && sinceQuit.elapsed() > 5000) {
                service->kill();
                service->waitForFinished();
                return Failed;
            }
        } else {
            if (stopRequested)
                return Ok;
            QThread::msleep(50);
        }
    }
}

int holdGuard(bool startService, const QString& logPath, const QStringList& serviceArgs)
{
    // The per-user files are looked up in an existing Documents folder; a fresh account may
    // have none yet, and then both programs would look beside the program instead.
    QDir().mkpath(QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation) + "/Velora");
    RunGuard guard(GS::instance()->guardKey);
    if (!guard.tryToRun()) {
        fprintf(stderr, "velora-ctl: another menu holds the guard already\n");
        return GuardHeld;
    }
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
    if (!startService) {
        printf("holding the menu guard; Ctrl+C ends it, and with it a service started without -v\n");
        fflush(stdout);
        return watch(nullptr);
    }
    QDir().mkpath(QFileInfo(logPath).absolutePath());
    QProcess service;
    service.setProgram(QCoreApplication::applicationDirPath() + "/velora");
    service.setArguments(serviceArgs);
    // The factory paths in config/velora.conf are relative to the program's folder.
    service.setWorkingDirectory(QCoreApplication::applicationDirPath());
    service.setStandardOutputFile(logPath, QIODevice::Append);
    service.setStandardErrorFile(logPath, QIODevice::Append);
    service.start();
    if (!service.waitForStarted()) {
        fprintf(stderr, "velora-ctl: cannot start %s\n", qPrintable(service.program()));
        return Failed;
    }
    printf("velora started (pid %lld), its log: %s\n", service.processId(), qPrintable(logPath));
    fflush(stdout);
    return watch(&service);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    // Qt's own log lines would mix into what scripts read from us.
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
    QStringList args = app.arguments().mid(1);
    std::optional<int> timeout;
    QString logPath = defaultLogPath();
    QStringList serviceArgs;
    const int dashes = args.indexOf("--");
    if (dashes >= 0) {
        serviceArgs = args.mid(dashes + 1);
        args = args.mid(0, dashes);
    }
    for (int i = 0; i < args.size();) {
        if (args[i] == "--help" || args[i] == "-h") {
            usage(stdout);
            return Ok;
        }
        if ((args[i] == "--timeout" || args[i] == "--log") && i + 1 < args.size()) {
            if (args[i] == "--log") {
                logPath = args[i + 1];
            } else {
                bool ok = false;
                timeout = args[i + 1].toInt(&ok);
                if (!ok || *timeout < 0) {
                    fprintf(stderr, "velora-ctl: --timeout takes whole seconds\n");
                    return Usage;
                }
            }
            args.remove(i, 2);
            continue;
        }
        ++i;
    }
    const QString name = args.join(' ');
    try {
        if (name == "run")
            return holdGuard(true, logPath, serviceArgs);
        if (name == "hold")
            return holdGuard(false, logPath, serviceArgs);
        for (const Command& c : commands)
            if (name == c.name)
                return runCommand(c, timeout);
    } catch (const ConfigFileError& e) {
        fprintf(stderr, "velora-ctl: %s\n", e.what());
        return Failed;
    }
    if (!name.isEmpty())
        fprintf(stderr, "velora-ctl: unknown command '%s'\n\n", qPrintable(name));
    usage(stderr);
    return Usage;
}
