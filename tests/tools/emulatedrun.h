#pragma once
// One child process (velora or the sensor probe) run against the emulated sensor: its files,
// the emulator preloaded, the output collected, and readers for the protocol log, the ground
// truth and the probe's records.
#include "emulatorfiles.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QProcessEnvironment>
#include <QStandardPaths>
#include <QThread>

#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

// Whether done() came true within ms, asked every 20 ms.
inline bool waitUntil(const std::function<bool()>& done, int ms)
{
    QElapsedTimer t;
    t.start();
    while (!done()) {
        if (t.elapsed() > ms)
            return false;
        QThread::msleep(20);
    }
    return true;
}

// Where velora keeps its user files.
inline QString userDir()
{
    return QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation) + "/Velora/";
}

// The file's bytes; none if it cannot be read.
inline QByteArray fileBytes(const QString& path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

class EmulatedRun : public EmulatorFiles
{
public:
    // One control request as the device received it.
    struct Write {
        double t = 0;
        bool async = false;
        std::string kind; // reg, out, start, clear-halt, ...
        int a = 0, b = 0, c = 0;  // reg: register, value; out: mask, level, data length
        static Write reg(int r, int v) { return {0, false, "reg", r, v, 0}; }
        static Write out(int mask, int level, int length) { return {0, false, "out", mask, level, length}; }
        bool operator==(const Write& o) const { return kind == o.kind && a == o.a && b == o.b && c == o.c; }
        friend void PrintTo(const Write& w, std::ostream* os) { *os << w.kind << " " << w.a << " " << w.b << " " << w.c; }
    };
    // One frame the device sent.
    struct Sent {
        double t = 0;
        long long ns = 0;
        int bytes = 0, x = 0, y = 0, w = 0, h = 0, binX = 1, binY = 1;
    };
    // One frame the probe's callback saw.
    struct Seen {
        long stamp = 0;
        long long ns = 0;
        int x = 0, y = 0, w = 0, h = 0;
    };

    QProcess process;
    QString output;

    explicit EmulatedRun(const std::string& scene) : EmulatorFiles(scene)
    {
        std::ofstream(path("cyusb.conf")) << "<VPD>\n1209 7e1a VeloraSensor\n</VPD>\n";
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        for (const auto& [name, value] : environment())
            env.insert(name, QString::fromStdString(value));
        env.insert("LD_PRELOAD", QString::fromStdString(preload()));
        env.insert("QT_QPA_PLATFORM", "offscreen");
        process.setProcessEnvironment(env);
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.setWorkingDirectory(dir.path());
    }

    ~EmulatedRun()
    {
        if (process.state() != QProcess::NotRunning) {
            process.kill();
            process.waitForFinished();
        }
    }

    void start(const QString& program, const QStringList& args)
    {
        process.setProgram(program);
        process.setArguments(args);
        process.start();
        ASSERT_TRUE(process.waitForStarted());
    }

    // The sensor probe with the test's cyusb.conf, its records file, and a script.
    void startProbe(const QStringList& options, const QStringList& script)
    {
        start(VELORA_PROBE, QStringList{"--cyusb", QString::fromStdString(path("cyusb.conf")), "--out",
                                        QString::fromStdString(path("records.txt"))}
                  + options + script);
    }

    // A copy of velora with the factory config/ beside it, as it is installed.
    void installVelora()
    {
        ASSERT_TRUE(QFile::copy(VELORA_BINARY, dir.filePath("velora")));
        QDir().mkpath(dir.filePath("config"));
        const QDir factory(VELORA_SOURCE_DIR "/config");
        for (const QString& name : factory.entryList(QDir::Files))
            ASSERT_TRUE(QFile::copy(factory.filePath(name), dir.filePath("config/" + name)));
    }

    // velora -v from that copy.
    void startVelora()
    {
        ASSERT_NO_FATAL_FAILURE(installVelora());
        start(dir.filePath("velora"), {"-v"});
    }

    // Collects the output until done() comes true or the process ends, for at most ms.
    bool collect(const std::function<bool()>& done, int ms)
    {
        waitUntil(
            [&] {
                process.waitForReadyRead(50);
                output += QString::fromLocal8Bit(process.readAll());
                return done() || process.state() == QProcess::NotRunning;
            },
            ms);
        output += QString::fromLocal8Bit(process.readAll());
        return done();
    }

    bool waitForOutput(const QString& text, int ms = 60000)
    {
        return collect([&] { return output.contains(text); }, ms);
    }

    // Waits for the end; false if it did not come.
    bool finish(int ms = 120000)
    {
        return collect([&] { return process.state() == QProcess::NotRunning; }, ms);
    }

    bool endedCleanly() const
    {
        return process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    }

    std::vector<Write> writes() const
    {
        std::vector<Write> out;
        std::ifstream in(path("log.txt"));
        for (std::string line; std::getline(in, line);) {
            std::istringstream s(line);
            Write x;
            std::string mode;
            if (!(s >> x.t >> mode >> x.kind))
                continue;
            x.async = mode == "async";
            if (x.kind == "reg" || x.kind == "out")
                s >> x.a >> x.b >> x.c;  // out has the data length too
            out.push_back(x);
        }
        return out;
    }

    // Register and output writes, which the sensor sends twice each.
    std::vector<Write> controlWrites() const
    {
        std::vector<Write> w = writes();
        std::erase_if(w, [](const Write& x) { return x.kind != "reg" && x.kind != "out"; });
        return w;
    }

    // One of each pair of control writes; a write not repeated at once is a failure. A run
    // that was killed may end between the two writes of a pair.
    std::vector<Write> pairedWrites(bool killed = false) const
    {
        const std::vector<Write> w = controlWrites();
        std::vector<Write> once;
        for (size_t i = 0; i < w.size(); i += 2) {
            EXPECT_TRUE(killed || i + 1 < w.size()) << "a lone last write";
            if (i + 1 >= w.size())
                break;
            EXPECT_EQ(w[i], w[i + 1]) << "write " << i << " not repeated";
            once.push_back(w[i]);
        }
        return once;
    }

    // The frames the device sent, by number.
    std::map<long, Sent> truth() const
    {
        std::map<long, Sent> out;
        for (const auto& w : lines("truth.txt", "F"))
            if (w.size() == 11)
                out[std::stol(w[1])] = {std::stod(w[2]), std::stoll(w[3]), std::stoi(w[4]), std::stoi(w[5]),
                                        std::stoi(w[6]),  std::stoi(w[7]),  std::stoi(w[8]), std::stoi(w[9]),
                                        std::stoi(w[10])};
        return out;
    }

    std::vector<Seen> records() const
    {
        std::vector<Seen> out;
        for (const auto& w : lines("records.txt", "C"))
            if (w.size() == 7)
                out.push_back({std::stol(w[1]), std::stoll(w[2]), std::stoi(w[3]), std::stoi(w[4]), std::stoi(w[5]),
                               std::stoi(w[6])});
        return out;
    }

private:
    // A sanitizer runtime must be loaded before the preloaded emulator: take the one this
    // test runs with, if any.
    static std::string preload()
    {
        std::string runtime;
        std::ifstream maps("/proc/self/maps");
        for (std::string line; std::getline(maps, line) && runtime.empty();) {
            for (const char* name : {"libasan.so", "libtsan.so"}) {
                const size_t at = line.find(name);
                const size_t slash = line.find('/');
                if (at != std::string::npos && slash != std::string::npos)
                    runtime = line.substr(slash);
            }
        }
        return runtime.empty() ? VELORA_EMULATOR_LIB : runtime + " " + VELORA_EMULATOR_LIB;
    }
};
