// How well the gaps of a capture file survived the trip to the wire: the file that was sent
// against a capture taken at the far end. For each frame after the first that arrived, the gap
// error is the gap on the wire less the gap in the file; the drift is how much longer (or
// shorter) the run from the first to the last frame that arrived took on the wire than in the
// file. The file's frames must differ from each other, as make-fixture's bench frames do.
#include <pcap/pcap.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

struct Frame {
    long long ns;
    std::string bytes;
};

bool ReadAll(const char* path, std::vector<Frame>& frames)
{
    char errbuf[PCAP_ERRBUF_SIZE] = "";
    pcap_t* file = pcap_open_offline_with_tstamp_precision(path, PCAP_TSTAMP_PRECISION_NANO, errbuf);
    if (!file) {
        std::fprintf(stderr, "bench-wire-gaps: %s\n", errbuf);
        return false;
    }
    pcap_pkthdr* header = nullptr;
    const u_char* data = nullptr;
    while (pcap_next_ex(file, &header, &data) == 1)
        frames.push_back({header->ts.tv_sec * 1000000000LL + header->ts.tv_usec,
                          std::string(reinterpret_cast<const char*>(data), header->caplen)});
    pcap_close(file);
    return true;
}

double Percentile(std::vector<double> sorted, double q)
{
    if (sorted.empty())
        return 0;
    std::size_t rank = static_cast<std::size_t>(std::ceil(q * sorted.size()));
    return sorted[rank > 0 ? rank - 1 : 0];
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: bench-wire-gaps SENT.pcap CAPTURED.pcap\n");
        return 2;
    }
    std::vector<Frame> sent, captured;
    if (!ReadAll(argv[1], sent) || !ReadAll(argv[2], captured))
        return 1;
    // Each captured frame is matched with the next frame of the file that has its bytes (the
    // capture may cut frames to its snap length: what it kept is compared), so a frame lost on
    // the way costs its own gap and not the match of every frame after it. Gaps are taken
    // between frames that both arrived, against the same two frames in the file.
    std::size_t altered = 0, matched = 0, next = 0;
    long long firstWire = 0, firstFile = 0, lastWire = 0, lastFile = 0;
    std::vector<double> errorsUs;
    for (const Frame& wire : captured) {
        // Looked for a bounded stretch ahead, so that a run of altered frames costs no quadratic time.
        const std::size_t end = std::min(sent.size(), next + 10000);
        std::size_t found = next;
        while (found < end && sent[found].bytes.compare(0, wire.bytes.size(), wire.bytes) != 0)
            ++found;
        if (found == end) {
            ++altered;
            continue;
        }
        if (matched++ == 0) {
            firstWire = wire.ns;
            firstFile = sent[found].ns;
        } else {
            const long long wireGap = wire.ns - lastWire, fileGap = sent[found].ns - lastFile;
            errorsUs.push_back(std::fabs(static_cast<double>(wireGap - fileGap)) / 1000);
        }
        lastWire = wire.ns;
        lastFile = sent[found].ns;
        next = found + 1;
    }
    std::sort(errorsUs.begin(), errorsUs.end());
    const long long wireSpan = lastWire - firstWire, fileSpan = lastFile - firstFile;
    const double driftUs = static_cast<double>(wireSpan - fileSpan) / 1000;
    const double driftPercent = fileSpan ? 100.0 * static_cast<double>(wireSpan - fileSpan) / static_cast<double>(fileSpan) : 0;
    std::printf("received %zu of %zu (%zu altered), gap error us: median %.1f p99 %.1f max %.1f, drift %.1f us (%.4f%%)\n",
                captured.size(), sent.size(), altered, Percentile(errorsUs, 0.5), Percentile(errorsUs, 0.99),
                errorsUs.empty() ? 0.0 : errorsUs.back(), driftUs, driftPercent);
    return captured.size() == sent.size() && altered == 0 ? 0 : 1;
}
