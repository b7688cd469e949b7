// What the library exports: the backend library's own functions, and which library that is.

#include "library.h"

#include "argument_writer.h"
#include "real_library.h"
#include "recorder.h"
#include "recording_backend.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <pthread.h>
#include <string>
#include <unistd.h>

namespace record {

namespace {

std::string variable(const char* name) {
    const char* const value = std::getenv(name);
    return value != nullptr ? value : "";
}

/// With the process's number for each %p.
std::string fileNamed(std::string name) {
    for (auto at = name.find("%p"); at != std::string::npos; at = name.find("%p", at))
        name.replace(at, 2, std::to_string(getpid()));
    return name;
}

std::unique_ptr<Recorder> makeRecorder() {
    const auto path = fileNamed(variable("UVA_RECORD"));
    if (path.empty())
        return nullptr;
    const auto payloads =
        variable("UVA_RECORD_PAYLOADS") == "digest" ? Payloads::Digest : Payloads::Full;
    std::string error;
    auto file = RecordFile::create(path, payloads, error);
    if (file != nullptr)
        return std::make_unique<Recorder>(std::move(file), payloads);
    std::fprintf(stderr, "uvarecord: no record is made: %s\n", error.c_str());
    return nullptr;
}

std::atomic<bool> isMade{false}; // trivially destroyed

/// The one of the process, null when nothing is recorded. Threads use it until the process ends.
Recorder* recorder() {
    static Recorder* const instance = [] {
        Recorder* const made = makeRecorder().release();
        if (made != nullptr)
            pthread_atfork(nullptr, nullptr, [] { recorder()->abandon(); });
        isMade = made != nullptr;
        return made;
    }();
    return instance;
}

/// Behind whatever the host does at its own exit.
__attribute__((destructor)) void closeRecord() {
    if (isMade)
        recorder()->close();
}

UVAMediaBackend* request(Recorder& recorder, UVABackend::UVABackendType type, UVAClient* client) {
    const auto code = static_cast<std::uint16_t>(Operation::requestBackend);
    const std::uint32_t number = recorder.next();
    const auto own = std::make_shared<RecordingClient>(recorder, recorder.nextObject(), client);
    Encoder asked;
    asked.integer(type);
    recorder.note(Kind::Call, own->object, number, code, asked);
    UVAMediaBackend* const backend =
        RealLibrary::instance().request(type, client != nullptr ? own.get() : nullptr);
    Encoder answer;
    answer.boolean(backend != nullptr);
    recorder.note(Kind::Return, own->object, number, code, answer);
    return backend != nullptr ? new RecordingBackend(type, *backend, own) : nullptr;
}

/// The client stays until the library has let go of it.
bool release(std::unique_ptr<RecordingBackend> backend) {
    const auto client = backend->client();
    const auto code = static_cast<std::uint16_t>(Operation::releaseBackend);
    const std::uint32_t number = client->recorder.next();
    client->recorder.note(Kind::Call, client->object, number, code, {});
    const bool released = RealLibrary::instance().release(&backend->backend());
    Encoder answer;
    answer.boolean(released);
    client->recorder.note(Kind::Return, client->object, number, code, answer);
    return released;
}

} // namespace

} // namespace record

using record::RealLibrary;

UVAMediaBackend* UVA_RequestBackend(UVABackend::UVABackendType type, UVAClient* client) noexcept {
    record::Recorder* const recorder = record::recorder();
    return recorder != nullptr ? record::request(*recorder, type, client)
                               : RealLibrary::instance().request(type, client);
}

bool UVA_ReleaseBackend(UVAMediaBackend* backend) noexcept {
    if (backend == nullptr || record::recorder() == nullptr)
        return RealLibrary::instance().release(backend);
    return record::release(
        std::unique_ptr<record::RecordingBackend>(static_cast<record::RecordingBackend*>(backend)));
}

bool BackendInit(GError** error) noexcept {
    return RealLibrary::instance().init(error);
}

void BackendTerm() noexcept {
    RealLibrary::instance().term();
}

void UVA_RecordLibrary(const char* path) noexcept {
    RealLibrary::choose(path);
}
