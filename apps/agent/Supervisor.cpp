#include <Supervisor.h>

#include <platform/Platform.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <string>

namespace sorvex::agent {
namespace {

using namespace std::chrono_literals;
using Seconds = std::chrono::duration<double>;

constexpr auto lookInterval = 50ms;

/// How long outlets may continue with already read lines after an interrupt.
constexpr auto handOverPatience = 700ms;

/// When remaining writes are abandoned: after an interrupt, and after an outlet was given up.
constexpr auto interruptPatience = 2200ms;
constexpr auto givenUpPatience = 1500ms;

/// The least time for an attempt that has not been refused, however short the user's limit is.
constexpr Seconds attemptPatience = 500ms;

/// How long one destination may make no progress after the end of the input when the others are done.
constexpr Seconds endPatience = 5s;

/// How long a destination may make no progress before others continue without it.
constexpr Seconds stallPatience = 1s;

/// Failures within this time of each other are one streak: a failed datagram costs a pause of a second.
constexpr auto failureInterval = 1500ms;

std::string ToText(double seconds) {
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), "%g", seconds);
  return text.data();
}

bool IsSame(const OutletActivity& left, const OutletActivity& right) {
  return left.isPending == right.isPending && left.moved == right.moved && left.beganNumber == right.beganNumber;
}

}  // namespace

Supervisor::Supervisor(const std::vector<std::unique_ptr<Outlet>>& outlets, const ForwardCommand& command)
    : m_giveUpAfter(command.giveUpAfter) {
  const Time now = std::chrono::steady_clock::now();
  for (const std::unique_ptr<Outlet>& outlet : outlets) m_watched.push_back({*outlet, {}, now, {}, {}, {}});
  m_thread.Start([this] { Run(); });
}

void Supervisor::Run() {
  while (!m_thread.WaitForStop(lookInterval)) {
    const Time now = std::chrono::steady_clock::now();
    if (IsInterrupted() && !m_interruptTime) m_interruptTime = now;
    for (Watched& watched : m_watched) Look(watched, now);
    if (std::ranges::all_of(m_watched, [](const Watched& watched) { return watched.outlet.HasGivenUp(); })) {
      StopReading();
    }
  }
}

void Supervisor::Look(Watched& watched, Time now) {
  if (watched.outlet.IsClosed()) return;
  NoteActivity(watched, now);
  watched.outlet.SetStalled(now - watched.unmovedSince > stallPatience);

  if (!watched.outlet.HasGivenUp()) {
    if (const std::optional<std::string> reason = ReasonToGiveUp(watched, now)) watched.outlet.GiveUp(*reason);
  }
  if (!watched.abandonTime && watched.outlet.HasGivenUp()) watched.abandonTime = now + givenUpPatience;
  const bool isTooLate = (watched.abandonTime && now >= *watched.abandonTime) ||
                         (m_interruptTime && now >= *m_interruptTime + interruptPatience);
  // Every time: what it ends may start again just after.
  if (isTooLate) watched.outlet.Abandon();
}

void Supervisor::NoteActivity(Watched& watched, Time now) const {
  const OutletActivity activity = watched.outlet.GetActivity();
  const bool isStreak = watched.lastFailure && now - *watched.lastFailure < failureInterval;
  if (!isStreak) watched.failingSince.reset();
  if (activity.failures != watched.last.failures) {
    if (isStreak && !watched.failingSince) watched.failingSince = watched.lastFailure;
    watched.lastFailure = now;
  }
  if (watched.failingSince) {
    watched.unmovedSince = *watched.failingSince;
  } else if (!activity.isPending || !IsSame(activity, watched.last)) {
    watched.unmovedSince = now;
  }
  watched.last = activity;
}

std::optional<std::string> Supervisor::ReasonToGiveUp(const Watched& watched, Time now) const {
  if (m_interruptTime && now >= *m_interruptTime + handOverPatience) {
    return "the program was asked to end";
  }
  if (!watched.last.isPending && !watched.failingSince) return std::nullopt;
  const Seconds unmoved = now - watched.unmovedSince;
  if (m_giveUpAfter) {
    const Seconds limit(*m_giveUpAfter);
    if (unmoved >= (watched.last.isRefused ? limit : std::max(limit, attemptPatience))) {
      return "given up, nothing could be sent for " + ToText(*m_giveUpAfter) + " seconds";
    }
  }
  if (watched.outlet.HasInputEnded() && unmoved >= endPatience) {
    return "given up, nothing could be sent for " + ToText(endPatience.count()) + " seconds after the end of the input";
  }
  return std::nullopt;
}

}  // namespace sorvex::agent
