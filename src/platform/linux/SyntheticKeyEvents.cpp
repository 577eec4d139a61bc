#include "platform/linux/SyntheticKeyEvents.h"

#include <algorithm>
#include <chrono>
#include <deque>

namespace {

using Clock = std::chrono::steady_clock;

// Long enough for a busy main loop to get round to reading the events, short
// enough that a stale entry cannot wait for a genuine key press of its own.
constexpr auto kLifetime = std::chrono::seconds(2);
// A paste sends a dozen events at most; far more means nobody is reading them.
constexpr size_t kMaxPending = 256;

struct Expected {
    unsigned keycode;
    bool press;
    Clock::time_point sentAt;
};

struct State {
    int listeners = 0;
    std::deque<Expected> expected;
};

State& state()
{
    static State instance;
    return instance;
}

void forgetStale(State& s, Clock::time_point now)
{
    while (!s.expected.empty() && (now - s.expected.front().sentAt > kLifetime || s.expected.size() > kMaxPending))
        s.expected.pop_front();
}

} // namespace

void SyntheticKeyEvents::setListening(bool listening)
{
    State& s = state();
    s.listeners = std::max(0, s.listeners + (listening ? 1 : -1));
    if (s.listeners == 0)
        s.expected.clear();
}

void SyntheticKeyEvents::expect(unsigned keycode, bool press)
{
    State& s = state();
    if (s.listeners == 0)
        return;
    const Clock::time_point now = Clock::now();
    s.expected.push_back({ keycode, press, now });
    forgetStale(s, now);
}

bool SyntheticKeyEvents::consume(unsigned keycode, bool press)
{
    State& s = state();
    if (s.expected.empty())
        return false;
    forgetStale(s, Clock::now());
    const auto match = std::find_if(s.expected.begin(), s.expected.end(),
        [&](const Expected& e) { return e.keycode == keycode && e.press == press; });
    if (match == s.expected.end())
        return false;
    s.expected.erase(match);
    return true;
}
