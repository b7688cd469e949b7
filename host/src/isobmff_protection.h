#ifndef HOST_ISOBMFF_PROTECTION_H
#define HOST_ISOBMFF_PROTECTION_H

#include "box_reader.h"
#include "host/sample.h"
#include "host/segment_parser.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace host {

// How fragments of an MP4 are encrypted (ISO/IEC 23001-7). All here throw a StreamFault.

/// What a 'tenc' box or a sample group 'seig' says. A plain value.
struct SampleEncryption {
    bool encrypted = false;
    Protection::Scheme scheme = Protection::Scheme::None; ///< groups have that of their track
    unsigned int ivSize = 0; ///< bytes of a sample's own vector; 0: the constant one
    unsigned int cryptByteBlock = 0;
    unsigned int skipByteBlock = 0;
    KeyBytes keyId = {};
    std::optional<InitVector> constantIv;
};

/// All but the parts of a sample, and its vector where it has its own.
void takeEncryption(const SampleEncryption& encryption, Protection& protection);

/// So many clear bytes are in front of a sample of that size. One that is clear stays so.
void prependClear(std::size_t bytes, std::size_t size, Protection& protection);

/// Whether ranges make up a sample of so many bytes. None do: it is encrypted as a whole.
bool covers(const std::vector<UVASample::Subsample>& subsamples, std::size_t size);

/// Of the 'sinf' in a sample entry.
SampleEncryption readProtectionScheme(const BoxReader& sinf);

/// Descriptions of the sample group 'seig', in a 'stbl' or a 'traf' ('sgpd').
struct EncryptionGroups {
    std::vector<SampleEncryption> descriptions;
    std::uint32_t defaultIndex = 0; ///< of samples that no run names; counts from 1
};
EncryptionGroups readEncryptionGroups(const BoxReader& container);

/// An item for the 'pssh' boxes that stand directly one behind the other.
std::vector<InitData> readInitData(const BoxReader& container);

/// Of a 'saiz' or 'saio' with these flags: whether it is about encryption. Moved behind what tells.
bool isOfEncryption(BoxReader& box, std::uint32_t flags);

/// In which group 'seig' samples are ('sbgp' of a 'traf'), from the first one on. A view.
class GroupCursor {
public:
    explicit GroupCursor(const BoxReader& traf);

    bool isThere() const { return m_runs.has_value(); }
    std::uint32_t next(); ///< 0: in none

private:
    std::optional<BoxReader> m_runs;
    std::uint32_t m_left = 0; ///< samples of the present run
    std::uint32_t m_index = 0;
};

/// What samples tell of their own encryption ('senc', or what 'saiz' and 'saio' describe), from the
/// first one on. A view.
class VectorCursor {
public:
    explicit VectorCursor(const BoxReader& traf);

    /// Described by sizes alone: the bytes are elsewhere, and have to be set before they are read.
    bool isElsewhere() const { return m_kind == Kind::Sized; }
    void setBytes(const BoxReader& bytes) { m_bytes = bytes; }
    std::size_t skipSize(); ///< of an elsewhere: passes a sample, tells how many bytes it has there

    /// The next sample's.
    Protection read(const SampleEncryption& encryption);
    void skip(const SampleEncryption& encryption); ///< of no elsewhere

private:
    enum class Kind { None, Senc, Sized };

    void readOne(BoxReader& bytes, bool hasSubsamples, unsigned int ivSize, Protection* protection);

    std::uint64_t m_position; ///< of the 'traf'
    Kind m_kind = Kind::None;
    bool m_hasSubsamples = false; ///< Senc
    std::optional<BoxReader> m_bytes;
    std::optional<BoxReader> m_sizes; ///< a byte a sample; none: each has ...
    std::size_t m_size = 0;
    std::uint32_t m_left = 0; ///< samples
};

} // namespace host

#endif
