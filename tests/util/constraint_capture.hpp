// Captures what the library reports through libsafec's string constraint handler.
#pragma once

#include <safe_str_lib.h>

#include <string>
#include <utility>
#include <vector>

namespace tov_test {

struct Report {
    std::string message;
    int code;
    bool operator==(const Report &) const = default;
};

class ConstraintCapture {
  public:
    ConstraintCapture() { previous_ = set_str_constraint_handler_s(&ConstraintCapture::handler); }
    ~ConstraintCapture() { set_str_constraint_handler_s(previous_); }
    ConstraintCapture(const ConstraintCapture &) = delete;
    ConstraintCapture &operator=(const ConstraintCapture &) = delete;

    // Everything reported since the last call.
    std::vector<Report> take() { return std::exchange(reports(), {}); }

  private:
    static std::vector<Report> &reports() {
        static std::vector<Report> r;
        return r;
    }
    static void handler(const char *msg, void *, errno_t error) {
        reports().push_back({msg ? msg : "(null)", error});
    }
    constraint_handler_t previous_;
};

} // namespace tov_test
