// How well the gaps of a capture file survived the trip to the wire: the file that was sent
// against a capture taken at the far end. For each frame after the first, the gap error is the
// gap on the wire less the gap in the file; the drift is how much longer (or shorter) the whole
// run took on the wire than in the file.
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
    const std::size_t n = std::min(sent.size(), captured.size());
    std::size_t altered = 0;
    std::vector<double> errorsUs;
    for (std::size_t i = 0; i < n; ++i) {
        // The capture may cut frames to its snap length: compare what it kept.
        const std::string& wire = captured[i].bytes;
        if (sent[i].bytes.compare(0, wire.size(), wire) != 0)
            ++altered;
        if (i > 0) {
            const long long wireGap = captured[i].ns - captured[i - 1].ns, fileGap = sent[i].ns - sent[i - 1].ns;
            errorsUs.push_back(std::fabs(static_cast<double>(wireGap - fileGap)) / 1000);
        }
    }
    std::sort(errorsUs.begin(), errorsUs.end());
    double driftUs = 0, driftPercent = 0;
    if (n > 1) {
        const long long wireSpan = captured[n - 1].ns - captured[0].ns, fileSpan = sent[n - 1].ns - sent[0].ns;
        driftUs = static_cast<double>(wireSpan - fileSpan) / 1000;
        driftPercent = fileSpan ? 100.0 * static_cast<double>(wireSpan - fileSpan) / static_cast<double>(fileSpan) : 0;
    }
    std::printf("received %zu of %zu (%zu altered), gap error us: median %.1f p99 %.1f max %.1f, drift %.1f us (%.4f%%)\n",
                captured.size(), sent.size(), altered, Percentile(errorsUs, 0.5), Percentile(errorsUs, 0.99),
                errorsUs.empty() ? 0.0 : errorsUs.back(), driftUs, driftPercent);
    return captured.size() == sent.size() && altered == 0 ? 0 : 1;
}
