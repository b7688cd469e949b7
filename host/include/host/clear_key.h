#ifndef HOST_CLEAR_KEY_H
#define HOST_CLEAR_KEY_H

#include "host/sample_stream.h"
#include "uva/uva_drm_backend.h"

#include <cstdint>
#include <memory>
#include <string>

namespace host {

/// Identifier of the key system, as setKeySystem() takes it.
inline constexpr const char* clearKeySystem = "org.w3.clearkey";

/// A key and its name. A plain value.
struct KeyPair {
    KeyBytes id;
    KeyBytes key;
};

/// "KID:KEY", 32 hexadecimal digits each; dashes, as in a UUID, may stand in the id. False when the
/// text is anything else.
bool parseKey(const std::string& text, KeyPair& pair);

/// 32 hexadecimal digits.
std::string hexText(const KeyBytes& bytes);

/// Content protection with keys that are simply known: "cenc" (AES-CTR) and "cbcs" (AES-CBC with a
/// pattern), ISO/IEC 23001-7. Key ids are KeyReferences. Nothing blocks: a decrypter
/// whose key is not there is refused. Every decrypter has a key slot, numbered from 1. Those that
/// are not given back end with this object. Thread-safe.
///
/// A key belongs to a session, which is what an element names to its backend as the `client` of its
/// key system: no other element's decrypters find it. Keys of session 0 serve all.
class ClearKey final : public UVADRMBackend {
public:
    /// Which decrypter interface backends find.
    enum class Interface { PerRange, FullSample };

    explicit ClearKey(Interface interface);
    ~ClearKey() override;

    /// Replaces one of the same id and session for decrypters made later.
    void addKey(const KeyPair& pair, std::uint64_t session = 0);
    /// Decrypters that have it keep it. Unknown ones do not matter.
    void removeKey(const KeyBytes& id, std::uint64_t session = 0);
    void removeKeys(std::uint64_t session); ///< all of a session
    /// Whether decrypters of this session find it.
    bool hasKey(const KeyBytes& id, std::uint64_t session = 0) const;

    /// `session`: of the element that asks.
    int createDecrypter(UVADRMDecrypter*& decrypter, const std::uint8_t* keyId,
                        std::size_t keyIdSize, std::uint64_t session) override;
    void releaseDecrypter(UVADRMDecrypter* decrypter) override;
    void* getInterface(const char* name) override;

    ///@{
    /// Decrypters made and given back, since the beginning: whoever is done has as many of each.
    unsigned int created() const;
    unsigned int released() const;
    ///@}

private:
    struct State;
    const std::unique_ptr<State> m_state;
};

/// The samples of a clear stream, encrypted on their way: so any codec can be tried protected.
/// Parameter sets and slice headers of H.264 and H.265, the first bytes of other video frames and
/// ADTS headers stay clear; other audio is encrypted as a whole. Video in Cbcs has the pattern 1:9,
/// audio none. Samples that are encrypted already pass as they are. The payload is copied. A sample
/// that cannot be encrypted ends the stream with an error: none slips through clear. A null stream
/// and Scheme::None come back as they are.
std::unique_ptr<SampleStream> protect(std::unique_ptr<SampleStream> clear,
                                      Protection::Scheme scheme, const KeyPair& key);

} // namespace host

#endif
