// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <iosfwd>
#include <string>

/// Identifies one channel of the system: a stream name such as "CAM_LOOP", a channel number
/// and a stream number, both counted from 0. A plain value; any thread may use its own.
class Shm_Stream_Transmission_Index {
public:
    /// A reset key: empty name, -1 in both numbers.
    Shm_Stream_Transmission_Index() = default;
    Shm_Stream_Transmission_Index(const std::string& name, int channel, int stream);
    Shm_Stream_Transmission_Index(const Shm_Stream_Transmission_Index&) = default;
    Shm_Stream_Transmission_Index& operator=(const Shm_Stream_Transmission_Index&) = default;

    virtual void reset();
    virtual ~Shm_Stream_Transmission_Index() = default;

    /// By name (byte-wise), then channel, then stream.
    bool operator<(const Shm_Stream_Transmission_Index& other) const;
    bool operator==(const Shm_Stream_Transmission_Index& other) const;

    std::string name;
    int channel = -1;
    int stream = -1;
};

/// Writes "Shm_Name : CAM_LOOP, Channel : 0, Stream : 1", without a line end.
std::ostream& operator<<(std::ostream& out, const Shm_Stream_Transmission_Index& key);

/// A channel together with the name of the other side of its pairing. Ordering and equality
/// are those of the channel; the pair name takes no part.
class Shm_Stream_Transmission_Pair_Index : public Shm_Stream_Transmission_Index {
public:
    Shm_Stream_Transmission_Pair_Index() = default;
    Shm_Stream_Transmission_Pair_Index(const std::string& name, int channel, int stream,
                                       const std::string& pair_name);

    /// The text form pairs the stream with itself: `pair_name` becomes `name`, and the fourth
    /// argument is not used. A null `name` counts as empty.
    Shm_Stream_Transmission_Pair_Index(const char* name, int channel, int stream,
                                       const char* pair_name);
    Shm_Stream_Transmission_Pair_Index(const Shm_Stream_Transmission_Pair_Index&) = default;
    Shm_Stream_Transmission_Pair_Index& operator=(const Shm_Stream_Transmission_Pair_Index&) =
        default;

    void reset() override;
    ~Shm_Stream_Transmission_Pair_Index() override = default;

    std::string pair_name;
};

/// Writes "Shm_Name PLAYER Channel : 0, Stream : 1Pair NameCAM_LOOP" and a line end.
std::ostream& operator<<(std::ostream& out, const Shm_Stream_Transmission_Pair_Index& key);
