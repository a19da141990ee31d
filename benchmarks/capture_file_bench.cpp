// Capture-file back-end against bare libpcap, side by side in one run: replay (Read loop), scan
// (ConfigureFile), seek (SeekBegin to the last packet) and recording (Write of every frame).
// Each figure is packets per second; each ratio is ours over the baseline of the same run, so
// that the noise of a shared machine falls on both alike.
#include <CaptureFileWriter.h>
#include <lyr/BufferPool.h>
#include <lyr/EthFrame.h>
#include <lyr/NetFile.h>
#include <lyr/PluginLoader.h>
#include <lyr/PluginLookup.h>

#include <pcap/pcap.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using NetFile = Lyr::NetFile;

struct Options {
    std::string dir = "/tmp/lyrbench";
    std::string plugin = LYR_BENCH_PLUGIN;
    std::string recordTo = "/dev/null"; // the cost of the code, not of the disk
    unsigned long long smallPackets = 3000000, largePackets = 300000;
    int runs = 5;
};

struct Workload {
    std::string name, path;
    unsigned int frameSize;
    unsigned long long packets;
};

volatile unsigned long long sink; // keeps the bare loops from being optimised away

// One contestant of a comparison, and what its last run took.
struct Side {
    std::function<unsigned long long()> body;
    double seconds = 0;
    unsigned long long count = 0;
};

// Times every side, in an order that turns run by run, so that none always inherits another's
// warm caches or its slice of a busy machine.
void Compare(int run, std::vector<Side>& sides)
{
    for (size_t i = 0; i < sides.size(); ++i) {
        Side& side = sides[(i + static_cast<size_t>(run)) % sides.size()];
        const auto start = Clock::now();
        side.count = side.body();
        side.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    }
}

// Present-day stamps one microsecond apart, and the last packet a second after the others, so
// that a seek to the last millisecond runs through the whole file and stops at that packet.
void Generate(const Workload& load)
{
    struct stat info{};
    const unsigned long long size = 24 + load.packets * (16ULL + load.frameSize);
    const std::string marker = load.path + ".v2"; // the layout of stamps this program expects
    if (stat(load.path.c_str(), &info) == 0 && static_cast<unsigned long long>(info.st_size) == size &&
        stat(marker.c_str(), &info) == 0)
        return;
    std::fprintf(stderr, "writing %s\n", load.path.c_str());
    fixture::CaptureFileWriter writer(load.path);
    const auto frame = fixture::EthernetFrame(0x0a0000000002, 0x0a0000000001, fixture::kEtherTypeIpv4,
                                              fixture::Payload(load.frameSize - 14, 1));
    for (unsigned long long i = 0; i < load.packets; ++i) {
        const unsigned long long t = i + (i + 1 == load.packets ? 1000000 : 0);
        writer.Add(1714564800 + static_cast<int64_t>(t / 1000000), static_cast<int64_t>(t % 1000000), frame);
    }
    writer.Close();
    fixture::WriteFile(marker, {});
}

// The bare loops run with stdio's default buffer, or are given one of the size that the back-end
// gives a capture file's stream. One at a time runs, so they share it.
void GiveStreamBuffer(FILE* stream)
{
    static char buffer[256 * 1024];
    setvbuf(stream, buffer, _IOFBF, sizeof buffer);
}

unsigned long long BarePcapNext(const std::string& path, bool bCopy, bool bBuffered)
{
    char errbuf[PCAP_ERRBUF_SIZE];
    pcap_t* handle = pcap_open_offline(path.c_str(), errbuf);
    if (!handle)
        return 0;
    if (bBuffered)
        GiveStreamBuffer(pcap_file(handle));
    static unsigned char buffer[9036];
    pcap_pkthdr header;
    unsigned long long count = 0;
    while (const u_char* data = pcap_next(handle, &header)) {
        if (bCopy)
            std::memcpy(buffer, data, header.caplen);
        ++count;
    }
    sink = sink + buffer[0];
    pcap_close(handle);
    return count;
}

unsigned long long BarePcapDump(const std::string& out, unsigned long long packets, const std::vector<uint8_t>& frame,
                                bool bBuffered)
{
    pcap_t* dead = pcap_open_dead(DLT_EN10MB, 9022);
    pcap_dumper_t* dumper = pcap_dump_open(dead, out.c_str());
    if (bBuffered)
        GiveStreamBuffer(pcap_dump_file(dumper));
    pcap_pkthdr header{};
    header.caplen = header.len = static_cast<bpf_u_int32>(frame.size());
    for (unsigned long long i = 0; i < packets; ++i) {
        const unsigned long long t = 1714564800000000ULL + i;
        header.ts.tv_sec = static_cast<time_t>(t / 1000000);
        header.ts.tv_usec = static_cast<suseconds_t>(t % 1000000);
        pcap_dump(reinterpret_cast<u_char*>(dumper), &header, frame.data());
    }
    pcap_dump_close(dumper);
    pcap_close(dead);
    return packets;
}

struct Result {
    std::vector<double> ours, bare, buffered; // packets per second, one per run
};

double Median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const size_t middle = values.size() / 2;
    return values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

bool ParseOptions(int argc, char** argv, Options& options)
{
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        const bool bHasValue = i + 1 < argc;
        if (word == "--dir" && bHasValue)
            options.dir = argv[++i];
        else if (word == "--plugin" && bHasValue)
            options.plugin = argv[++i];
        else if (word == "--record-to" && bHasValue)
            options.recordTo = argv[++i];
        else if (word == "--runs" && bHasValue)
            options.runs = std::max(1, std::atoi(argv[++i]));
        else if (word == "--small" && bHasValue)
            options.smallPackets = std::strtoull(argv[++i], nullptr, 10);
        else if (word == "--large" && bHasValue)
            options.largePackets = std::strtoull(argv[++i], nullptr, 10);
        else {
            std::fprintf(stderr,
                         "usage: capture_file_bench [--runs N] [--small PACKETS] [--large PACKETS] [--dir DIR]\n"
                         "                          [--plugin PATH] [--record-to PATH]\n"
                         "  64-byte and 1500-byte captures go into DIR (default /tmp/lyrbench) and are\n"
                         "  kept for the next run; recordings go to --record-to (default /dev/null).\n");
            return false;
        }
    }
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    if (!ParseOptions(argc, argv, options))
        return 2;
    std::string error;
    if (!Lyr::LoadPlugin(options.plugin, error)) {
        std::fprintf(stderr, "capture_file_bench: %s\n", error.c_str());
        return 1;
    }
    std::system(("mkdir -p '" + options.dir + "'").c_str());
    const std::vector<Workload> loads = {
        {"64 B", options.dir + "/small-64.pcap", 64, options.smallPackets},
        {"1500 B", options.dir + "/large-1500.pcap", 1500, options.largePackets},
    };
    for (const Workload& load : loads)
        Generate(load);

    Lyr::BufferPool pool(1, 9036);
    Lyr::EthFrame frame(pool.GetBuffer(), 0);
    std::map<std::string, Result> results; // "replay 64 B" and so on
    std::vector<std::string> order;
    // Ours against the two bare loops: libpcap as it comes, and given our stream buffer.
    auto compare = [&](int run, const std::string& what, std::function<unsigned long long()> ours,
                       std::function<unsigned long long(bool bBuffered)> bare) {
        std::vector<Side> sides = {{std::move(ours)}, {[&] { return bare(false); }}, {[&] { return bare(true); }}};
        Compare(run, sides);
        if (!results.count(what))
            order.push_back(what);
        for (const Side& side : sides)
            if (side.count != sides[1].count)
                std::fprintf(stderr, "%s: %llu packets against %llu\n", what.c_str(), side.count, sides[1].count);
        Result& result = results[what];
        result.ours.push_back(sides[0].count / sides[0].seconds);
        result.bare.push_back(sides[1].count / sides[1].seconds);
        result.buffered.push_back(sides[2].count / sides[2].seconds);
    };

    for (const Workload& load : loads)
        BarePcapNext(load.path, true, true); // into the page cache before anything is timed
    for (int run = 0; run < options.runs; ++run) {
        for (const Workload& load : loads) {
            std::unique_ptr<NetFile> file = Lyr::CreatePlugin<NetFile>("pcap");
            if (!file) {
                std::fprintf(stderr, "capture_file_bench: no \"pcap\" capture-file back-end\n");
                return 1;
            }
            auto barePass = [&](bool bCopy) {
                return [&load, bCopy](bool bBuffered) { return BarePcapNext(load.path, bCopy, bBuffered); };
            };

            // Scan: the whole of ConfigureFile, opening included, against one bare pass over the headers.
            compare(run, "scan " + load.name,
                    [&] { return file->ConfigureFile(load.path, NetFile::NetFileMode_Read, 0) ? load.packets : 0; },
                    barePass(false));

            // Seek to the last packet: one pass over the headers from a reopened file.
            const unsigned long long duration = file->GetDuration();
            compare(run, "seek " + load.name, [&] {
                file->SeekBegin(duration - 1);
                return file->GetPosition() == duration ? load.packets : 0;
            }, barePass(false));

            // Replay: every frame through Read, against pcap_next and one copy per packet.
            compare(run, "replay " + load.name, [&] {
                file->SeekBegin(0);
                unsigned long long count = 0;
                while (file->Read(frame))
                    ++count;
                return count;
            }, barePass(true));

            // Recording: the same frame with a new stamp each time, against a bare pcap_dump loop.
            const auto bytes = fixture::EthernetFrame(0x0a0000000002, 0x0a0000000001, fixture::kEtherTypeIpv4,
                                                      fixture::Payload(load.frameSize - 14, 1));
            Kt::CSlice<unsigned char> data = frame.GetData().Prefix(load.frameSize);
            std::memcpy(data.data, bytes.data(), bytes.size());
            frame.SetData(data);
            compare(run, "record " + load.name, [&] {
                std::unique_ptr<NetFile> out = Lyr::CreatePlugin<NetFile>("pcap");
                if (!out->ConfigureFile(options.recordTo, NetFile::NetFileMode_Write, 0))
                    return 0ULL;
                for (unsigned long long i = 0; i < load.packets; ++i) {
                    frame.SetTimestamp(1714564800000000ULL + i);
                    out->Write(frame);
                }
                return load.packets; // the destructor closes the file, inside the timing
            }, [&](bool bBuffered) { return BarePcapDump(options.recordTo, load.packets, bytes, bBuffered); });
        }
    }

    // The best run of each side is the one least disturbed by the rest of the machine; the
    // per-run ratios show how much the disturbance moves the comparison.
    std::printf("%d runs; packets per second of the best run of each side: ours, bare libpcap as it comes\n"
                "(bare) and given our stream buffer (buffered); ratio = ours / baseline of the same run,\n"
                "median [min, max] over the runs\n",
                options.runs);
    std::printf("%-14s %11s %11s %11s   %-22s %s\n", "", "ours", "bare", "buffered", "ours/bare", "ours/buffered");
    auto ratios = [](const std::vector<double>& ours, const std::vector<double>& baseline) {
        std::vector<double> values;
        for (size_t i = 0; i < ours.size(); ++i)
            values.push_back(ours[i] / baseline[i]);
        char text[64];
        std::snprintf(text, sizeof text, "%.3f [%.3f, %.3f]", Median(values),
                      *std::min_element(values.begin(), values.end()), *std::max_element(values.begin(), values.end()));
        return std::string(text);
    };
    auto best = [](const std::vector<double>& values) { return *std::max_element(values.begin(), values.end()); };
    for (const std::string& what : order) {
        const Result& result = results[what];
        std::printf("%-14s %11.0f %11.0f %11.0f   %-22s %s\n", what.c_str(), best(result.ours), best(result.bare),
                    best(result.buffered), ratios(result.ours, result.bare).c_str(),
                    ratios(result.ours, result.buffered).c_str());
    }
    return 0;
}
