#include "emulateduser.h"

#include <cmath>

EmulatedUser::EmulatedUser(const Scene::User& u, unsigned seed) : user(u), rng(seed) {}

bool EmulatedUser::isNew(const ScreenCapture::Sighting& seen) const
{
    return !pressedBefore || goneSincePress
        || std::hypot(seen.x - current.targetX, seen.y - current.targetY) > newTargetDistance;
}

EmulatedUser::Change EmulatedUser::update(double t, const ScreenCapture::Sighting* seen, int& nextId)
{
    const bool visible = seen && seen->found;
    if (t < user.start || state == State::Done) {
        return Change::None;
    }
    if (!visible && pressedBefore) {
        goneSincePress = true;
    }
    if (state == State::Waiting && visible && isNew(*seen)) {
        state = State::Reacting;
        reactUntil = t + user.reaction;
    }
    if (state == State::Reacting) {
        if (!visible) {
            state = State::Waiting;  // gone before the finger got there
            return Change::None;
        }
        if (t < reactUntil) {
            return Change::None;
        }
        // Uniform over the disc of the accuracy's radius.
        std::uniform_real_distribution<double> unit(0.0, 1.0);
        const double r = user.accuracy * std::sqrt(unit(rng));
        const double a = 2 * M_PI * unit(rng);
        current.id = nextId++;
        current.targetX = seen->x;
        current.targetY = seen->y;
        current.x = seen->x + r * std::cos(a);
        current.y = seen->y + r * std::sin(a);
        pressedAt = t;
        pressedBefore = true;
        goneSincePress = false;
        state = State::Holding;
        return Change::Pressed;
    }
    if (state == State::Holding) {
        const bool done = user.hold >= 0
            ? t >= pressedAt + user.hold
            : !visible || std::hypot(seen->x - current.targetX, seen->y - current.targetY) > newTargetDistance;
        if (!done) {
            return Change::None;
        }
        state = ++presses == user.count ? State::Done : State::Waiting;
        return Change::Released;
    }
    return Change::None;
}
