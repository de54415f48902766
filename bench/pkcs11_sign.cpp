// Times signatures through any PKCS#11 module: C_SignInit + C_Sign over 32 bytes, in a loop, for a
// fixed time after a warm-up: raw ECDSA (CKM_ECDSA, the bytes as the digest) with an EC key,
// RSASSA-PKCS1-v1_5 (CKM_SHA256_RSA_PKCS, the bytes as the message) with an RSA key. Prints one
// line per run:
//
//   label=L threads=N seconds=S signatures=C per_s=R mean_us=M p50_us=P p99_us=Q
//
// Usage: pkcs11_sign MODULE.so LABEL [--pin PIN] [--seconds S] [--warmup S] [--threads N]
//                    [--runs R]
#include <dlfcn.h>
#include <p11-kit/pkcs11.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <exception>
#include <memory>
#include <numeric>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

[[noreturn]] void fail(std::string_view call, CK_RV rv) {
    std::array<char, 32> hex{};
    std::snprintf(hex.data(), hex.size(), "0x%08lx", static_cast<unsigned long>(rv));
    throw std::runtime_error(std::string(call) + " failed: " + hex.data());
}

void check(std::string_view call, CK_RV rv) {
    if (rv != CKR_OK) fail(call, rv);
}

struct DlCloser {
    void operator()(void* handle) const noexcept { dlclose(handle); }
};

// The loaded and initialized module; finalized before it is unloaded.
class Module {
  public:
    explicit Module(const std::string& path)
        : handle_(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) {
        if (!handle_) throw std::runtime_error(std::string("dlopen: ") + dlerror());
        auto* get_list =
            reinterpret_cast<CK_C_GetFunctionList>(dlsym(handle_.get(), "C_GetFunctionList"));
        if (!get_list) throw std::runtime_error(path + " exports no C_GetFunctionList");
        check("C_GetFunctionList", get_list(&fn_));
        CK_C_INITIALIZE_ARGS args{};
        args.flags = CKF_OS_LOCKING_OK;
        check("C_Initialize", fn_->C_Initialize(&args));
    }
    Module(const Module&) = delete;
    Module& operator=(const Module&) = delete;
    ~Module() { fn_->C_Finalize(nullptr); }

    CK_FUNCTION_LIST& fn() const { return *fn_; }

  private:
    std::unique_ptr<void, DlCloser> handle_;
    CK_FUNCTION_LIST* fn_ = nullptr;
};

class Session {
  public:
    Session(const Module& module, CK_SLOT_ID slot) : fn_(module.fn()) {
        check("C_OpenSession",
              fn_.C_OpenSession(slot, CKF_SERIAL_SESSION, nullptr, nullptr, &handle_));
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    ~Session() { fn_.C_CloseSession(handle_); }

    void login(std::string& pin) {
        CK_RV rv =
            fn_.C_Login(handle_, CKU_USER, reinterpret_cast<CK_UTF8CHAR*>(pin.data()), pin.size());
        if (rv != CKR_USER_ALREADY_LOGGED_IN) check("C_Login", rv);
    }

    CK_OBJECT_HANDLE find_private_key(std::string& label) {
        CK_OBJECT_CLASS cls = CKO_PRIVATE_KEY;
        std::array<CK_ATTRIBUTE, 2> query{{
            {CKA_CLASS, &cls, sizeof cls},
            {CKA_LABEL, label.data(), label.size()},
        }};
        check("C_FindObjectsInit", fn_.C_FindObjectsInit(handle_, query.data(), query.size()));
        std::array<CK_OBJECT_HANDLE, 2> found{};
        CK_ULONG count = 0;
        CK_RV rv = fn_.C_FindObjects(handle_, found.data(), found.size(), &count);
        check("C_FindObjectsFinal", fn_.C_FindObjectsFinal(handle_));
        check("C_FindObjects", rv);
        if (count != 1)
            throw std::runtime_error("expected one private key labelled '" + label + "', found " +
                                     std::to_string(count) + (count > 1 ? " or more" : ""));
        return found[0];
    }

    CK_MECHANISM_TYPE mechanism_for(CK_OBJECT_HANDLE key) {
        CK_KEY_TYPE type = CKK_EC;
        CK_ATTRIBUTE attribute{CKA_KEY_TYPE, &type, sizeof type};
        check("C_GetAttributeValue", fn_.C_GetAttributeValue(handle_, key, &attribute, 1));
        return type == CKK_RSA ? CKM_SHA256_RSA_PKCS : CKM_ECDSA;
    }

    void sign(CK_OBJECT_HANDLE key, CK_MECHANISM_TYPE type, std::span<CK_BYTE> digest,
              std::span<CK_BYTE> signature) {
        CK_MECHANISM mechanism{type, nullptr, 0};
        check("C_SignInit", fn_.C_SignInit(handle_, &mechanism, key));
        CK_ULONG length = signature.size();
        check("C_Sign",
              fn_.C_Sign(handle_, digest.data(), digest.size(), signature.data(), &length));
        if (length == 0) throw std::runtime_error("C_Sign returned an empty signature");
    }

  private:
    CK_FUNCTION_LIST& fn_;
    CK_SESSION_HANDLE handle_ = CK_INVALID_HANDLE;
};

// The first slot whose token is ready for use; modules may list an empty, uninitialized token
// after the real ones.
CK_SLOT_ID first_token_slot(const Module& module) {
    CK_ULONG count = 0;
    check("C_GetSlotList", module.fn().C_GetSlotList(CK_TRUE, nullptr, &count));
    std::vector<CK_SLOT_ID> slots(count);
    check("C_GetSlotList", module.fn().C_GetSlotList(CK_TRUE, slots.data(), &count));
    slots.resize(count);
    for (CK_SLOT_ID slot : slots) {
        CK_TOKEN_INFO info{};
        check("C_GetTokenInfo", module.fn().C_GetTokenInfo(slot, &info));
        if (info.flags & CKF_TOKEN_INITIALIZED) return slot;
    }
    throw std::runtime_error("no slot holds an initialized token");
}

struct Options {
    std::string module;
    std::string label;
    std::optional<std::string> pin;
    double seconds = 5.0;
    double warmup = 1.0;
    unsigned threads = 1;
    unsigned runs = 1;
};

template <typename T>
T parse_number(std::string_view name, std::string_view text) {
    T value{};
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc{} || end != text.data() + text.size() || !(value > T{}))
        throw std::runtime_error(std::string(name) + " needs a positive number");
    return value;
}

Options parse_options(std::span<char*> args) {
    Options options;
    std::vector<std::string_view> positional;
    for (std::size_t i = 0; i < args.size(); ++i) {
        std::string_view arg = args[i];
        if (!arg.starts_with("--")) {
            positional.push_back(arg);
            continue;
        }
        if (i + 1 == args.size()) throw std::runtime_error(std::string(arg) + " needs a value");
        std::string_view value = args[++i];
        if (arg == "--pin") {
            options.pin = std::string(value);
        } else if (arg == "--seconds") {
            options.seconds = parse_number<double>(arg, value);
        } else if (arg == "--warmup") {
            options.warmup = parse_number<double>(arg, value);
        } else if (arg == "--threads") {
            options.threads = parse_number<unsigned>(arg, value);
        } else if (arg == "--runs") {
            options.runs = parse_number<unsigned>(arg, value);
        } else {
            throw std::runtime_error("unknown option " + std::string(arg));
        }
    }
    if (positional.size() != 2)
        throw std::runtime_error(
            "usage: pkcs11_sign MODULE.so LABEL [--pin PIN] [--seconds S] [--warmup S] "
            "[--threads N] [--runs R]");
    options.module = positional[0];
    options.label = positional[1];
    return options;
}

using Latencies = std::vector<std::chrono::nanoseconds::rep>;

// One thread's share of a run: its own session, warm-up, then timed signatures until the
// common deadline.
void sign_until(const Module& module, CK_SLOT_ID slot, std::string label, Clock::time_point warm,
                Clock::time_point end, Latencies& latencies) {
    Session session(module, slot);
    CK_OBJECT_HANDLE key = session.find_private_key(label);
    const CK_MECHANISM_TYPE mechanism = session.mechanism_for(key);
    std::array<CK_BYTE, 32> digest{};
    std::iota(digest.begin(), digest.end(), CK_BYTE{1});
    std::array<CK_BYTE, 512> signature{};
    while (Clock::now() < warm) session.sign(key, mechanism, digest, signature);
    for (auto start = Clock::now(); start < end;) {
        session.sign(key, mechanism, digest, signature);
        auto stop = Clock::now();
        latencies.push_back((stop - start).count());
        start = stop;
    }
}

double percentile_us(const Latencies& sorted, double p) {
    auto rank = static_cast<std::size_t>(std::ceil(p * static_cast<double>(sorted.size())));
    return static_cast<double>(sorted[std::max<std::size_t>(rank, 1) - 1]) / 1e3;
}

void run_once(const Module& module, CK_SLOT_ID slot, const Options& options) {
    using std::chrono::duration;
    auto warm = Clock::now() +
                std::chrono::duration_cast<Clock::duration>(duration<double>(options.warmup));
    auto end =
        warm + std::chrono::duration_cast<Clock::duration>(duration<double>(options.seconds));
    std::vector<Latencies> per_thread(options.threads);
    std::vector<std::exception_ptr> errors(options.threads);
    {
        std::vector<std::jthread> threads;
        for (unsigned t = 0; t < options.threads; ++t) {
            threads.emplace_back([&, t] {
                try {
                    sign_until(module, slot, options.label, warm, end, per_thread[t]);
                } catch (...) {
                    errors[t] = std::current_exception();
                }
            });
        }
    }
    for (const auto& error : errors)
        if (error) std::rethrow_exception(error);

    Latencies all;
    for (const auto& latencies : per_thread)
        all.insert(all.end(), latencies.begin(), latencies.end());
    if (all.empty()) throw std::runtime_error("no signature finished within the timed window");
    std::sort(all.begin(), all.end());
    double total_us = static_cast<double>(std::accumulate(all.begin(), all.end(), 0LL)) / 1e3;
    std::printf(
        "label=%s threads=%u seconds=%.2f signatures=%zu per_s=%.1f mean_us=%.1f p50_us=%.1f "
        "p99_us=%.1f\n",
        options.label.c_str(), options.threads, options.seconds, all.size(),
        static_cast<double>(all.size()) / options.seconds,
        total_us / static_cast<double>(all.size()), percentile_us(all, 0.50),
        percentile_us(all, 0.99));
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        Options options = parse_options(std::span(argv + 1, static_cast<std::size_t>(argc - 1)));
        Module module(options.module);
        CK_SLOT_ID slot = first_token_slot(module);
        // Login belongs to the application, not the session: this session keeps it for the
        // workers' sessions.
        Session control(module, slot);
        if (options.pin) control.login(*options.pin);
        for (unsigned run = 0; run < options.runs; ++run) run_once(module, slot, options);
        return 0;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "pkcs11_sign: %s\n", e.what());
        return 1;
    }
}
