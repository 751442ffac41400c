// Status output on standard error. Bars and step timings appear only when standard error is a
// terminal and --quiet was not given, so logs and pipes stay clean; warnings appear unless
// --quiet.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace orve::tool {

class reporter {
  public:
    explicit reporter(bool quiet);
    bool interactive() const { return interactive_; }
    bool quiet() const { return quiet_; }
    void warn(const std::string& line) const;

  private:
    bool quiet_;
    bool interactive_;
};

class progress_bar {
  public:
    progress_bar(const reporter& rep, std::string label, uint64_t total, std::string unit);
    ~progress_bar();
    progress_bar(const progress_bar&) = delete;
    progress_bar& operator=(const progress_bar&) = delete;

    void update(uint64_t done);
    // Draws the final state with the total time; called by the destructor if not before.
    void finish();

  private:
    void draw(uint64_t done, bool final);

    bool enabled_;
    std::string label_;
    uint64_t total_;
    std::string unit_;
    std::chrono::steady_clock::time_point start_;
    std::chrono::steady_clock::time_point last_draw_;
    uint64_t done_ = 0;
    bool finished_ = false;
};

// A single long library call cannot report progress, so it gets a "what... done in X s" line.
class step_timer {
  public:
    step_timer(const reporter& rep, const std::string& what);
    ~step_timer();
    step_timer(const step_timer&) = delete;
    step_timer& operator=(const step_timer&) = delete;
    // Ends the line and returns the elapsed seconds.
    double done();

  private:
    bool enabled_;
    bool open_ = true;
    std::chrono::steady_clock::time_point start_;
};

double seconds_since(std::chrono::steady_clock::time_point start);

// "12.3k", "4.56M": rates and counts short enough for one terminal line.
std::string human_count(double v);

}  // namespace orve::tool
