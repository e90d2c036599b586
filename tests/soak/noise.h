// Whoever else may send on the bus: garbage, messages that are cut, wrong or meant for nobody, and answers that
// nobody waits for, to every port that somebody receives on.
#ifndef TESTS_SOAK_NOISE_H
#define TESTS_SOAK_NOISE_H

#include "tests/support/bus_peer.h"

class Noise {
public:
    // Now and then a datagram, rarely a burst of them.
    void Step();

private:
    BusSocket stSocket_;
};

#endif
