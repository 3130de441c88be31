// Three processes that hand bytes on and do nothing else: from here to a second, to a third, and
// back the same way.
#pragma once

#include "processes.h"

class Relay {
  public:
    // The bytes of a call on its first and second hop, and of the answer on each hop back.
    struct Bytes {
        size_t call, forwarded, answer;
    };
    explicit Relay(Bytes bytes);
    ~Relay();
    Relay(const Relay &) = delete;
    Relay &operator=(const Relay &) = delete;

    void round_trip();

  private:
    Bytes bytes_;
    int fd_;
    std::vector<Process> processes_;
};
