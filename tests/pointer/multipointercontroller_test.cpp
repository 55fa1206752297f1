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

// A blob in a state at a screen position, handed over as inside or outside the screen.
struct Delivery {
    int state;
    double fx, fy;
    int id = 4;
    bool outside = false;
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
    void deliver(const std::vector<Delivery>& blobs)
    {
        for (const Delivery& d : blobs) {
            Blob b(10, 10, 2, 2, 0);
            b.state = d.state;
            b.fx = d.fx;
            b.fy = d.fy;
            b.sessionId = d.id;
            d.outside ? multi.newOutsideBlob(&b, {&b}, nullptr) : multi.newBlob(&b, {&b}, nullptr);
        }
    }
};

} // namespace

TEST_F(PointerFanOut, BlobStatesBecomeGesturesAtTheScreenPositionOrOutsideCallsWithoutTheScreenTest)
{
    const struct {
        std::vector<Delivery> blobs;
        std::vector<std::string> log;
    } cases[] = {
        {{{0, 100, 200, 9}, {2, 110, 210, 9}, {1, 120, 220, 9}, {3, 120, 220, 9}, {-1, 120, 220, 9}},
         {"P down 100,200 #9", "P move 110,210 #9", "P up 120,220 #9"}},
        // Off the screen a blob sends neither down nor move, but always its up.
        {{{0, 0.5, 500}, {2, 1921, 500}, {2, 500, 0.9}, {2, 1, 1}, {2, 1920, 1080}, {1, -5, 300}},
         {"P move 1,1 #4", "P move 1920,1080 #4", "P up -5,300 #4"}},
        {{{0, -50, 3000, 7, true}, {2, -40, 3000, 7, true}, {1, -30, 3000, 7, true}, {3, -30, 3000, 7, true}},
         {"P downOut -50,3000 #7", "P moveOut -40,3000 #7", "P upOut -30,3000 #7"}},
    };
    for (const auto& c : cases) {
        log.clear();
        deliver(c.blobs);
        EXPECT_EQ(log, c.log);
    }
}

TEST_F(PointerFanOut, DisabledSwallowsEverythingEvenTheUpOfAnOpenContact)
{
    deliver({{0, 100, 100}});
    multi.enabled = false;
    deliver({{1, 100, 100}, {0, 100, 100, 5, true}});
    EXPECT_EQ(log, (std::vector<std::string>{"P down 100,100 #4"}));
}

TEST_F(PointerFanOut, CallsGoToTheSelectedListButResetReachesBoth)
{
    multi.addPrimaryController(new Output("P2", &log));
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
