#pragma once
// The emulated sensor's files for one run, in a temp folder of their own: the scene it plays,
// the log of the requests it received and the ground truth of what it sent, and readers for
// them.
#include <gtest/gtest.h>

#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

// A program built beside velora.
inline QString toolPath(const QString& name)
{
    return QFileInfo(VELORA_BINARY).absolutePath() + "/" + name;
}

// The calibration that puts the scene's screen where the scene has it, into the file.
inline int sceneCalibration(const std::string& scene, const QString& file)
{
    return QProcess::execute(toolPath("velora-scene-calibration"), {QString::fromStdString(scene), file});
}

class EmulatorFiles
{
public:
    // A press of an emulated person; released is the time of its lift, -1 while it holds.
    struct Press {
        double t;
        int id;
        std::string kind;
        double targetX, targetY, pressX, pressY, sensorX, sensorY, released = -1;
    };

    QTemporaryDir dir;

    explicit EmulatorFiles(const std::string& scene) { std::ofstream(path("scene.txt")) << scene; }

    std::string path(const std::string& name) const { return dir.filePath(QString::fromStdString(name)).toStdString(); }

    // The variables that point the emulator at these files.
    std::vector<std::pair<const char*, std::string>> environment() const
    {
        return {{"VELORA_EMU_SCENE", path("scene.txt")}, {"VELORA_EMU_LOG", path("log.txt")},
                {"VELORA_EMU_TRUTH", path("truth.txt")}};
    }

    std::string fileText(const std::string& name) const
    {
        std::stringstream s;
        s << std::ifstream(path(name)).rdbuf();
        return s.str();
    }

    // The file's lines that hold anything, as words; with a tag, only the lines it begins. A
    // last line without its end is still being written, and left out.
    std::vector<std::vector<std::string>> lines(const std::string& name, const std::string& tag = {}) const
    {
        std::vector<std::vector<std::string>> out;
        std::ifstream in(path(name));
        for (std::string line; std::getline(in, line) && !in.eof();) {
            std::istringstream words(line);
            std::vector<std::string> w;
            for (std::string s; words >> s;)
                w.push_back(s);
            if (!w.empty() && (tag.empty() || w[0] == tag))
                out.push_back(std::move(w));
        }
        return out;
    }

    // The presses of the truth file so far, each with its release once that came.
    std::vector<Press> presses() const
    {
        std::vector<Press> out;
        for (const auto& w : lines("truth.txt")) {
            const auto d = [&w](size_t i) { return std::stod(w[i]); };
            if (w[0] == "P" && w.size() >= 10) {
                out.push_back({d(1), std::stoi(w[2]), w[3], d(4), d(5), d(6), d(7), d(8), d(9)});
            } else if (w[0] == "R" && w.size() >= 3) {
                const int id = std::stoi(w[2]);
                const auto p = std::find_if(out.rbegin(), out.rend(), [id](const Press& x) { return x.id == id; });
                if (p == out.rend())
                    ADD_FAILURE() << "release of no press: " << id;
                else
                    p->released = d(1);
            }
        }
        return out;
    }
};
