#include "blob.h"
#include "globalsettings.h"
#include "multipointercontroller.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

// An output that writes down every call it receives.
class Output : public IPointerController {
public:
    std::string name;
    std::vector<std::string>* log;
    bool* destroyed = nullptr;
    Output(std::string n, std::vector<std::string>* l) : name(std::move(n)), log(l) {}
    ~Output() override
    {
        if (destroyed)
            *destroyed = true;
    }
    void say(const std::string& what, EVector p, int id)
    {
        log->push_back(name + " " + what + " " + std::to_string(int(p.x)) + "," + std::to_string(int(p.y)) + " #"
                       + std::to_string(id));
    }
    void handleDown(EVector p, int id) override { say("down", p, id); }
    void handleMove(EVector p, int id) override { say("move", p, id); }
    void handleUp(EVector p, int id) override { say("up", p, id); }
    void handleDownOutsideScreen(EVector p, int id) override { say("downOut", p, id); }
    void handleMoveOutsideScreen(EVector p, int id) override { say("moveOut", p, id); }
    void handleUpOutsideScreen(EVector p, int id) override { say("upOut", p, id); }
    void mouseWheelUp() override { log->push_back(name + " wheelUp"); }
    void keyPress(std::string key) override { log->push_back(name + " key " + key); }
    void reset() override { log->push_back(name + " reset"); }
};

class PointerFanOut : public ::testing::Test {
protected:
    std::vector<std::string> log;
    MultiPointerController multi;
    Output* primary = new Output("P", &log);
    Output* secondary = new Output("S", &log);

    void SetUp() override
    {
        GS::instance()->screenWidth = 1920;
        GS::instance()->screenHeight = 1080;
        multi.addPrimaryController(primary);
        multi.addSecondaryController(secondary);
        multi.enablePrimary();
        multi.enabled = true;
    }
    void deliver(int state, double fx, double fy, int id = 4, bool outsideCall = false)
    {
        Blob b(10, 10, 2, 2, 0);
        b.state = state;
        b.fx = fx;
        b.fy = fy;
        b.sessionId = id;
        if (outsideCall)
            multi.newOutsideBlob(&b, {&b}, nullptr);
        else
            multi.newBlob(&b, {&b}, nullptr);
    }
};

} // namespace

TEST_F(PointerFanOut, BlobStatesBecomeGesturesAtTheScreenPosition)
{
    deliver(0, 100, 200, 9);
    deliver(2, 110, 210, 9);
    deliver(1, 120, 220, 9);
    deliver(3, 120, 220, 9);
    deliver(-1, 120, 220, 9);
    EXPECT_EQ(log, (std::vector<std::string>{"P down 100,200 #9", "P move 110,210 #9", "P up 120,220 #9"}));
}

TEST_F(PointerFanOut, OffScreenBlobsSendNeitherDownNorMoveButAlwaysTheirUp)
{
    deliver(0, 0.5, 500);
    deliver(2, 1921, 500);
    deliver(2, 500, 0.9);
    EXPECT_TRUE(log.empty());
    deliver(2, 1, 1);
    deliver(2, 1920, 1080);
    deliver(1, -5, 300);
    EXPECT_EQ(log, (std::vector<std::string>{"P move 1,1 #4", "P move 1920,1080 #4", "P up -5,300 #4"}));
}

TEST_F(PointerFanOut, DisabledSwallowsEverythingEvenTheUpOfAnOpenContact)
{
    deliver(0, 100, 100);
    multi.enabled = false;
    deliver(1, 100, 100);
    deliver(0, 100, 100, 5, true);
    EXPECT_EQ(log, (std::vector<std::string>{"P down 100,100 #4"}));
}

TEST_F(PointerFanOut, OutsideBlobsUseTheOutsideCallsWithoutTheScreenTest)
{
    deliver(0, -50, 3000, 7, true);
    deliver(2, -40, 3000, 7, true);
    deliver(1, -30, 3000, 7, true);
    deliver(3, -30, 3000, 7, true);
    EXPECT_EQ(log, (std::vector<std::string>{"P downOut -50,3000 #7", "P moveOut -40,3000 #7", "P upOut -30,3000 #7"}));
}

TEST_F(PointerFanOut, CallsGoToTheSelectedListButResetReachesBoth)
{
    auto* second = new Output("P2", &log);
    multi.addPrimaryController(second);
    multi.addPrimaryController(nullptr);
    EXPECT_EQ(multi.primaryControllers.size(), 2);

    multi.handleDown(EVector(1, 2), 3);
    multi.keyPress("a");
    multi.mouseWheelUp();
    multi.mouseWheelDown();
    multi.enableSecondary();
    multi.handleUp(EVector(1, 2), 3);
    multi.reset();
    EXPECT_EQ(log, (std::vector<std::string>{"P down 1,2 #3", "P2 down 1,2 #3", "P key a", "P2 key a", "P wheelUp",
                                             "P2 wheelUp", "S up 1,2 #3", "P reset", "P2 reset", "S reset"}));
}

TEST_F(PointerFanOut, AnEmptySelectedListIsSilentAndTheOwnerDeletesItsOutputs)
{
    bool deleted = false;
    {
        MultiPointerController owner;
        auto* out = new Output("O", &log);
        out->destroyed = &deleted;
        owner.addSecondaryController(out);
        owner.enabled = true;
        owner.handleDown(EVector(5, 5), 1);
        EXPECT_TRUE(log.empty()) << "the primary list is empty";
    }
    EXPECT_TRUE(deleted);
}
