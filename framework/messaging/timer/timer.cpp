#include "messaging/timer/timer.h"

void Timer::start() {
    stopped = 0;
    clock_gettime(CLOCK_MONOTONIC, &startTime);
}

void Timer::stop() {
    stopped = 1;
    clock_gettime(CLOCK_MONOTONIC, &endTime);
}

double Timer::getElapsedTimeInMicroSec() {
    if (!stopped)
        clock_gettime(CLOCK_MONOTONIC, &endTime);
    return microseconds(endTime) - microseconds(startTime);
}

double Timer::getElapsedTimeInMilliSec() {
    return getElapsedTimeInMicroSec() * 0.001;
}

double Timer::getElapsedTimeInSec() {
    return getElapsedTimeInMicroSec() * 0.000001;
}
