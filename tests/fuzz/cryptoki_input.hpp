#pragma once

// Reads fuzz input as the arguments an application passes through the PKCS#11 interface. Every
// value gets a buffer of exactly its length, so that reading past one is a finding.
//
// Layout, numbers little-endian, missing bytes read as zero:
//   value      a length byte and that many bytes; 0xFF: a null pointer, its length in the next byte
//   template   a count byte (at most maxAttributes are read), then per attribute a 2-byte type
//              and a value
//   mechanism  a 2-byte type, a parameter kind and the parameter: 0 none; 1 the structure of
//              the mechanism; 2 a value (never of the size of a structure holding pointers);
//              others a null pointer, its length in the next byte. The structures:
//              CKM_RSA_PKCS_OAEP: hashAlg (2), mgf (2), source (2), a value (the label);
//              CKM_ECDH1_DERIVE: kdf (2), a value (shared data), a value (public data);
//              any other mechanism CK_RSA_PKCS_PSS_PARAMS: hashAlg (2), mgf (2), sLen (8)

#include <p11-kit/pkcs11.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "base/bytes.hpp"

namespace keyloft::fuzz {

class CryptokiInput {
  public:
    static constexpr std::size_t maxAttributes = 16;
    static constexpr std::uint8_t nullValue = 0xFF;

    enum class Parameter : std::uint8_t { none, structure, value };

    explicit CryptokiInput(ByteView data) : rest_(data) {}

    std::uint8_t byte() { return static_cast<std::uint8_t>(number(1)); }

    std::uint64_t number(std::size_t width) {
        std::uint64_t value = 0;
        for (std::size_t i = 0; i < width && !rest_.empty(); ++i) {
            value |= static_cast<std::uint64_t>(rest_.front()) << (8 * i);
            rest_ = rest_.subspan(1);
        }
        return value;
    }

    // Up to count bytes: fewer when the input ends.
    ByteView bytes(std::size_t count) {
        const ByteView taken = rest_.first(std::min(count, rest_.size()));
        rest_ = rest_.subspan(taken.size());
        return taken;
    }

    struct Value {
        void* pointer;
        CK_ULONG length;
    };
    Value value() {
        const std::uint8_t length = byte();
        if (length == nullValue) return {nullptr, byte()};
        const ByteView content = bytes(length);
        return {keep(content.data(), content.size()), content.size()};
    }

    std::vector<CK_ATTRIBUTE> attributes() {
        std::vector<CK_ATTRIBUTE> out(std::min<std::size_t>(byte(), maxAttributes));
        for (auto& attribute : out) {
            attribute.type = number(2);
            const auto [pointer, length] = value();
            attribute.pValue = pointer;
            attribute.ulValueLen = length;
        }
        return out;
    }

    CK_MECHANISM mechanism() {
        CK_MECHANISM mechanism{number(2), nullptr, 0};
        switch (static_cast<Parameter>(byte())) {
            case Parameter::none:
                break;
            case Parameter::structure:
                if (mechanism.mechanism == CKM_RSA_PKCS_OAEP) {
                    setParameter(mechanism, oaep());
                } else if (mechanism.mechanism == CKM_ECDH1_DERIVE) {
                    setParameter(mechanism, ecdh());
                } else {
                    setParameter(mechanism, pss());
                }
                break;
            case Parameter::value: {
                auto [pointer, length] = value();
                // Bytes the module would take for a structure's pointers cannot be checked by it.
                if (length == sizeof(CK_RSA_PKCS_OAEP_PARAMS) ||
                    length == sizeof(CK_ECDH1_DERIVE_PARAMS)) {
                    --length;
                }
                mechanism.pParameter = pointer;
                mechanism.ulParameterLen = length;
                break;
            }
            default:
                // No parameter, with a length: the module must not read it.
                mechanism.ulParameterLen = byte();
                break;
        }
        return mechanism;
    }

  private:
    CK_RSA_PKCS_PSS_PARAMS pss() {
        CK_RSA_PKCS_PSS_PARAMS parameters{};
        parameters.hashAlg = number(2);
        parameters.mgf = number(2);
        parameters.sLen = number(8);
        return parameters;
    }

    CK_RSA_PKCS_OAEP_PARAMS oaep() {
        CK_RSA_PKCS_OAEP_PARAMS parameters{};
        parameters.hashAlg = number(2);
        parameters.mgf = number(2);
        parameters.source = number(2);
        const auto [label, length] = value();
        parameters.pSourceData = label;
        parameters.ulSourceDataLen = length;
        return parameters;
    }

    CK_ECDH1_DERIVE_PARAMS ecdh() {
        CK_ECDH1_DERIVE_PARAMS parameters{};
        parameters.kdf = number(2);
        const auto [shared, sharedLength] = value();
        const auto [point, pointLength] = value();
        parameters.pSharedData = static_cast<CK_BYTE_PTR>(shared);
        parameters.ulSharedDataLen = sharedLength;
        parameters.pPublicData = static_cast<CK_BYTE_PTR>(point);
        parameters.ulPublicDataLen = pointLength;
        return parameters;
    }

    void* keep(const void* data, std::size_t size) {
        buffers_.push_back(std::make_unique<std::uint8_t[]>(size));
        if (size != 0) std::memcpy(buffers_.back().get(), data, size);
        return buffers_.back().get();
    }

    template <class T>
    void setParameter(CK_MECHANISM& mechanism, const T& parameter) {
        mechanism.pParameter = keep(&parameter, sizeof parameter);
        mechanism.ulParameterLen = sizeof parameter;
    }

    ByteView rest_;
    std::vector<std::unique_ptr<std::uint8_t[]>> buffers_;
};

}  // namespace keyloft::fuzz
