#pragma once

#include "scene.h"
#include "screencapture.h"

#include <random>

// A person in front of the screen who presses targets of one colour: on seeing a new target
// (one that moved since the last press, or came back after going away) they react, press near
// it, hold, lift, and wait for the next. Driven by the frame clock with what they see of the
// screen, which is the projector's delayed picture.
class EmulatedUser
{
public:
    enum class Change { None, Pressed, Released };
    struct Press {
        int id = 0;
        double targetX = 0, targetY = 0;  // where the target was seen, screen pixels
        double x = 0, y = 0;              // where the user pressed
    };

    // A target moving by more than this (screen pixels) is a new one.
    static constexpr double newTargetDistance = 5;

    EmulatedUser(const Scene::User& user, unsigned seed);

    // Advances to time t (seconds since the start request). seen: the user's colour as on the
    // screen now, null when there is no screen to see. A press takes its id from nextId.
    Change update(double t, const ScreenCapture::Sighting* seen, int& nextId);
    bool pressing() const { return state == State::Holding; }
    const Press& press() const { return current; }
    const Scene::User& settings() const { return user; }

private:
    enum class State { Waiting, Reacting, Holding, Done };
    bool isNew(const ScreenCapture::Sighting& seen) const;

    Scene::User user;
    std::mt19937 rng;
    State state = State::Waiting;
    double reactUntil = 0, pressedAt = 0;
    int presses = 0;
    bool pressedBefore = false;
    bool goneSincePress = false;
    Press current;
};
