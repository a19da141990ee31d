#pragma once

// What the capture-file tests share: present-day stamps, recognisable frames and a frame with
// room for the largest packet.

#include <CaptureFileWriter.h>
#include <lyr/BufferPool.h>
#include <lyr/EthFrame.h>

#include <cstdint>
#include <vector>

constexpr int64_t Now = 1714564800; // 2024-05-01, a present-day stamp

// An IPv4 frame of `size` bytes whose payload is told apart by `seed`.
inline std::vector<uint8_t> Frame(size_t size, uint8_t seed = 1)
{
    return fixture::EthernetFrame(0x0a0000000002, 0x0a0000000001, fixture::kEtherTypeIpv4,
                                  fixture::Payload(size - 14, seed));
}

inline std::vector<uint8_t> Bytes(const Lyr::EthFrame& frame)
{
    const auto data = frame.GetData();
    return std::vector<uint8_t>(data.data, data.data + data.size);
}

// A frame with a buffer for the largest packet and an Ethernet header in front of it.
struct FrameBuffer {
    Lyr::BufferPool pool{1, 9036};
    Lyr::EthFrame frame{pool.GetBuffer(), 0};
};
