// SPDX-License-Identifier: Apache-2.0
// What goes over a network interface, written to a file that packet analysers read. Needs CAP_NET_RAW.
// Made and used on one thread, in whose network namespace it listens; no lock.
#ifndef NIMBREL2_TESTS_SUPPORT_PACKETCAPTURE_H
#define NIMBREL2_TESTS_SUPPORT_PACKETCAPTURE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Nimbrel2::Testing {

class PacketCapture {
public:
    /// Captures from here on, so that nothing sent afterwards is missed. @throws std::system_error
    explicit PacketCapture(const std::string& interfaceName);
    ~PacketCapture();

    PacketCapture(const PacketCapture&) = delete;
    PacketCapture& operator=(const PacketCapture&) = delete;

    /// Takes what has been sent so far. On a loopback interface each frame is taken once.
    void Collect();

    std::size_t GetFrameCount() const { return m_frames.size(); }

    /// Writes what was collected as a pcap file of Ethernet frames. @throws std::system_error
    void WriteTo(const std::string& path) const;

private:
    int m_socket = -1;
    bool m_loopback = false;
    std::vector<std::vector<std::uint8_t>> m_frames;
};

/// A file of a name of its own in the temporary folder; removed with the object.
class TemporaryFile {
public:
    TemporaryFile();
    ~TemporaryFile();
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    const std::string& GetPath() const { return m_path; }

private:
    std::string m_path;
};

}  // namespace Nimbrel2::Testing

#endif
