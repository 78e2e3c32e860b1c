#pragma once

#include <QList>
#include <QPair>
#include <QString>

#include <optional>

namespace dictora {

// Where recognition should run. `automatic` takes a real GPU when there is
// one; `gpu` asks for one explicitly (still the CPU when none is found).
// `software` takes a software Vulkan device (Mesa's lavapipe) on purpose, so
// machines without a GPU (CI) run the whole GPU path; slower than the CPU.
enum class SpeechDevicePreference { automatic, cpu, gpu, software };

// The setting (in the preferences store) that picks the device: "auto" (the
// default), "cpu", "gpu", "gpu:N" for the library's GPU number N, or
// "software" (also "lavapipe").
inline constexpr auto kSpeechDeviceSettingKey = "transcription.device";

std::optional<SpeechDevicePreference> speechDevicePreferenceFromString(const QString &text);
// N of "gpu:N"; -1 for any other value.
int speechDeviceGpuIndex(const QString &text);
QString rawValue(SpeechDevicePreference preference);

// DICTORA_SPEECH_DEVICE (cpu, gpu, software, auto) wins over `configured`; tests use it
// to pin the CPU. An unknown value is ignored.
SpeechDevicePreference speechDevicePreferenceFromEnvironment(SpeechDevicePreference configured);

// One compute device as the speech library's back-ends list it.
struct ComputeDevice {
    enum class Kind { cpu, gpu, integratedGpu, accelerator, other };
    Kind kind = Kind::other;
    QString name;        // the back-end's name, e.g. "Vulkan0"
    QString description; // the device's own name, e.g. "NVIDIA H100 80GB HBM3"

    friend bool operator==(const ComputeDevice &, const ComputeDevice &) = default;
};

struct SpeechDeviceChoice {
    bool useGpu = false;
    // Position among the library's GPU devices (discrete and integrated, in
    // its order), which is how the library numbers them.
    int gpuIndex = 0;
    QString name = QStringLiteral("cpu"); // the device's description, or "cpu"
    QString reason;                       // why the CPU, when it is the CPU

    friend bool operator==(const SpeechDeviceChoice &, const SpeechDeviceChoice &) = default;
};

// A discrete GPU first, else an integrated one; software rasterisers
// (llvmpipe, lavapipe, SwiftShader) run on the CPU anyway and are skipped,
// unless `software` asks for exactly them. With `gpuIndex` set and usable,
// that GPU, whatever its kind.
SpeechDeviceChoice chooseSpeechDevice(const QList<ComputeDevice> &devices, SpeechDevicePreference preference,
    int gpuIndex = -1);
// Each GPU the choice could take, by its number, as "gpu:N" and its name.
QList<QPair<QString, QString>> usableGpus(const QList<ComputeDevice> &devices);

bool isSoftwareRasteriser(const ComputeDevice &device);

// The devices of the back-ends built into the speech library. The first call
// initialises those back-ends (with Vulkan: creates an instance).
QList<ComputeDevice> availableComputeDevices();

// ggml's Vulkan back-end leaves CPU-type devices (Mesa's lavapipe) out of its
// list. Asked for the software device, this names it to the back-end instead
// (GGML_VK_VISIBLE_DEVICES), which only works before the back-ends first start:
// the engine calls it when built with `software`, and availableComputeDevices()
// when DICTORA_SPEECH_DEVICE says so. Returns whether one was named.
bool exposeSoftwareVulkanDevice();

} // namespace dictora
