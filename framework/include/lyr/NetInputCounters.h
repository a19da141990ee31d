#pragma once

// What a live input has seen since its counters were last reset.
struct NetInputCounters {
    unsigned long long frameCount;
    unsigned long long byteCount;
    unsigned long long dropCount;
};
