#include "xor_drm.h"

#include <algorithm>
#include <vector>

namespace {

constexpr std::uint8_t key[] = {0x5a, 0xc3, 0x17, 0x88};

constexpr int granted = 1; // of createDecrypter()
constexpr int refused = 0;
constexpr int succeeded = 0; // of decrypt()
constexpr int failed = -1;

class Decrypter final : public UVADRMDecrypter {
public:
    int decrypt(const Input& input, const Output& output) override {
        if (input.iv != nullptr) { // a sample begins
            m_vector.assign(input.iv, input.iv + input.ivSize);
            m_at = 0;
        }
        if (m_vector.empty() || output.size < input.size)
            return failed;
        for (std::size_t i = 0; i < input.size; ++i, ++m_at) {
            const std::uint8_t mask = key[m_at % std::size(key)] ^ m_vector[m_at % m_vector.size()];
            output.data[i] = input.data[i] ^ mask;
        }
        if (input.last)
            m_vector.clear();
        return succeeded;
    }

private:
    std::vector<std::uint8_t> m_vector; // empty: in no sample
    std::size_t m_at = 0;               // encrypted bytes of the sample so far
};

} // namespace

int XorDrm::createDecrypter(UVADRMDecrypter*& decrypter, const std::uint8_t* id, std::size_t idSize,
                            std::uint64_t /*value*/) {
    if (id == nullptr || !std::equal(id, id + idSize, std::begin(keyId), std::end(keyId)))
        return refused;
    decrypter = new Decrypter;
    ++m_decrypters;
    return granted;
}

void XorDrm::releaseDecrypter(UVADRMDecrypter* decrypter) {
    delete decrypter;
    --m_decrypters;
}

/// No optional interface.
void* XorDrm::getInterface(const char* /*name*/) {
    return nullptr;
}
