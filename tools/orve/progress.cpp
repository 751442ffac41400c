#include "progress.h"

#include <unistd.h>

#include <cstdio>

namespace orve::tool {

using clock_type = std::chrono::steady_clock;

double seconds_since(clock_type::time_point start) {
    return std::chrono::duration<double>(clock_type::now() - start).count();
}

std::string human_count(double v) {
    char buf[32];
    if (v >= 1e9) {
        std::snprintf(buf, sizeof buf, "%.2fG", v / 1e9);
    } else if (v >= 1e6) {
        std::snprintf(buf, sizeof buf, "%.2fM", v / 1e6);
    } else if (v >= 1e4) {
        std::snprintf(buf, sizeof buf, "%.1fk", v / 1e3);
    } else {
        std::snprintf(buf, sizeof buf, "%.0f", v);
    }
    return buf;
}

reporter::reporter(bool quiet) : quiet_(quiet), interactive_(!quiet && ::isatty(2) == 1) {}

void reporter::warn(const std::string& line) const {
    if (!quiet_) std::fprintf(stderr, "orve: warning: %s\n", line.c_str());
}

progress_bar::progress_bar(const reporter& rep, std::string label, uint64_t total, std::string unit)
    : enabled_(rep.interactive()),
      label_(std::move(label)),
      total_(total),
      unit_(std::move(unit)),
      start_(clock_type::now()),
      last_draw_(start_) {
    if (enabled_) draw(0, false);
}

progress_bar::~progress_bar() {
    finish();
}

void progress_bar::update(uint64_t done) {
    done_ = done;
    if (!enabled_) return;
    // Redrawing more often than a few times a second costs time and cannot be read anyway.
    const auto now = clock_type::now();
    if (now - last_draw_ < std::chrono::milliseconds(100)) return;
    last_draw_ = now;
    draw(done, false);
}

void progress_bar::finish() {
    if (finished_) return;
    finished_ = true;
    if (enabled_) draw(done_, true);
}

void progress_bar::draw(uint64_t done, bool final) {
    constexpr int kWidth = 28;
    const double elapsed = seconds_since(start_);
    const double frac = total_ ? static_cast<double>(done) / static_cast<double>(total_) : 1.0;
    const int filled = static_cast<int>(frac * kWidth);
    std::string bar(static_cast<size_t>(filled), '#');
    bar.resize(kWidth, '.');
    const double rate = elapsed > 0 ? static_cast<double>(done) / elapsed : 0.0;
    if (final) {
        std::fprintf(stderr, "\r%-12s [%s] %3.0f%%  %s %s in %.1f s (%s/s)\x1b[K\n", label_.c_str(),
                     bar.c_str(), frac * 100.0, human_count(static_cast<double>(done)).c_str(),
                     unit_.c_str(), elapsed, human_count(rate).c_str());
    } else {
        const double left = rate > 0 ? static_cast<double>(total_ - done) / rate : 0.0;
        std::fprintf(stderr, "\r%-12s [%s] %3.0f%%  %s/%s %s  %s/s  ETA %.0f s\x1b[K",
                     label_.c_str(), bar.c_str(), frac * 100.0,
                     human_count(static_cast<double>(done)).c_str(),
                     human_count(static_cast<double>(total_)).c_str(), unit_.c_str(),
                     human_count(rate).c_str(), left);
    }
    std::fflush(stderr);
}

step_timer::step_timer(const reporter& rep, const std::string& what)
    : enabled_(rep.interactive()), start_(clock_type::now()) {
    if (enabled_) {
        std::fprintf(stderr, "%s...", what.c_str());
        std::fflush(stderr);
    }
}

step_timer::~step_timer() {
    if (open_ && enabled_) std::fprintf(stderr, " failed\n");
}

double step_timer::done() {
    const double s = seconds_since(start_);
    if (open_ && enabled_) std::fprintf(stderr, " done in %.1f s\n", s);
    open_ = false;
    return s;
}

}  // namespace orve::tool
