#include "speech/SpeechDevice.h"

#include "speech/GgmlBackends.h"

#include <ggml-backend.h>

#ifdef DICTORA_HAS_VULKAN
#include <vulkan/vulkan.h>

#include <dlfcn.h>
#endif

#include <mutex>
#include <vector>

namespace dictora {

std::optional<SpeechDevicePreference> speechDevicePreferenceFromString(const QString &text)
{
    const QString value = text.trimmed().toLower();
    if (value == QLatin1String("cpu"))
        return SpeechDevicePreference::cpu;
    if (value == QLatin1String("gpu") || speechDeviceGpuIndex(value) >= 0)
        return SpeechDevicePreference::gpu;
    if (value == QLatin1String("software") || value == QLatin1String("lavapipe"))
        return SpeechDevicePreference::software;
    if (value == QLatin1String("auto") || value == QLatin1String("automatic"))
        return SpeechDevicePreference::automatic;
    return std::nullopt;
}

int speechDeviceGpuIndex(const QString &text)
{
    const QString value = text.trimmed().toLower();
    if (!value.startsWith(QLatin1String("gpu:")))
        return -1;
    bool ok = false;
    const int index = value.mid(4).toInt(&ok);
    return ok && index >= 0 ? index : -1;
}

QString rawValue(SpeechDevicePreference preference)
{
    switch (preference) {
    case SpeechDevicePreference::cpu:
        return QStringLiteral("cpu");
    case SpeechDevicePreference::gpu:
        return QStringLiteral("gpu");
    case SpeechDevicePreference::software:
        return QStringLiteral("software");
    case SpeechDevicePreference::automatic:
        break;
    }
    return QStringLiteral("auto");
}

SpeechDevicePreference speechDevicePreferenceFromEnvironment(SpeechDevicePreference configured)
{
    return speechDevicePreferenceFromString(qEnvironmentVariable("DICTORA_SPEECH_DEVICE")).value_or(configured);
}

bool isSoftwareRasteriser(const ComputeDevice &device)
{
    for (const char *marker : {"llvmpipe", "lavapipe", "swiftshader", "softpipe"}) {
        if (device.description.contains(QLatin1String(marker), Qt::CaseInsensitive)
            || device.name.contains(QLatin1String(marker), Qt::CaseInsensitive))
            return true;
    }
    return false;
}

SpeechDeviceChoice chooseSpeechDevice(const QList<ComputeDevice> &devices, SpeechDevicePreference preference,
    int chosenGpu)
{
    SpeechDeviceChoice choice;
    if (preference == SpeechDevicePreference::cpu) {
        choice.reason = QStringLiteral("cpu requested");
        return choice;
    }
    // The library numbers discrete and integrated GPUs together, skipped ones included.
    struct Candidate {
        int index;
        const ComputeDevice *device;
    };
    std::optional<Candidate> discrete;
    std::optional<Candidate> integrated;
    int gpuIndex = 0;
    for (const ComputeDevice &device : devices) {
        const bool gpu = device.kind == ComputeDevice::Kind::gpu;
        const bool igpu = device.kind == ComputeDevice::Kind::integratedGpu;
        if (!gpu && !igpu)
            continue;
        const int index = gpuIndex++;
        if (isSoftwareRasteriser(device) != (preference == SpeechDevicePreference::software))
            continue;
        if (preference == SpeechDevicePreference::gpu && index == chosenGpu) {
            discrete = Candidate{index, &device};
            break;
        }
        if (gpu && !discrete)
            discrete = Candidate{index, &device};
        if (igpu && !integrated)
            integrated = Candidate{index, &device};
    }
    const std::optional<Candidate> picked = discrete ? discrete : integrated;
    if (!picked) {
        choice.reason = preference == SpeechDevicePreference::software ? QStringLiteral("no software vulkan device found")
                                                                       : QStringLiteral("no gpu found");
        return choice;
    }
    choice.useGpu = true;
    choice.gpuIndex = picked->index;
    choice.name = picked->device->description.isEmpty() ? picked->device->name : picked->device->description;
    return choice;
}

QList<QPair<QString, QString>> usableGpus(const QList<ComputeDevice> &devices)
{
    QList<QPair<QString, QString>> gpus;
    int index = 0;
    for (const ComputeDevice &device : devices) {
        if (device.kind != ComputeDevice::Kind::gpu && device.kind != ComputeDevice::Kind::integratedGpu)
            continue;
        const int number = index++;
        if (!isSoftwareRasteriser(device))
            gpus.append({QStringLiteral("gpu:%1").arg(number), device.description.isEmpty() ? device.name : device.description});
    }
    return gpus;
}

namespace {

#ifdef DICTORA_HAS_VULKAN
// The index of the first CPU-type device in the loader's order, which is the
// order ggml's own instance sees; -1 without one. The loader is opened for
// this alone, so that a build without a Vulkan driver pays nothing.
// The loader is opened at run time: a machine without Vulkan still starts.
struct LoaderLibrary {
    void *handle = dlopen("libvulkan.so.1", RTLD_NOW | RTLD_LOCAL);
    ~LoaderLibrary()
    {
        if (handle)
            dlclose(handle);
    }
    LoaderLibrary() = default;
    LoaderLibrary(const LoaderLibrary &) = delete;
    LoaderLibrary &operator=(const LoaderLibrary &) = delete;
};

struct VulkanInstance {
    VkInstance handle = VK_NULL_HANDLE;
    PFN_vkDestroyInstance destroy = nullptr;
    ~VulkanInstance()
    {
        if (handle && destroy)
            destroy(handle, nullptr);
    }
    VulkanInstance() = default;
    VulkanInstance(const VulkanInstance &) = delete;
    VulkanInstance &operator=(const VulkanInstance &) = delete;
};

int softwareVulkanDeviceIndex()
{
    const LoaderLibrary loader;
    if (!loader.handle)
        return -1;
    const auto getProc = reinterpret_cast<PFN_vkGetInstanceProcAddr>(dlsym(loader.handle, "vkGetInstanceProcAddr"));
    const auto create = getProc ? reinterpret_cast<PFN_vkCreateInstance>(getProc(nullptr, "vkCreateInstance")) : nullptr;
    VkApplicationInfo app{};
    app.sType = VK_STRUCTURE_TYPE_APPLICATION_INFO;
    app.apiVersion = VK_API_VERSION_1_2;
    VkInstanceCreateInfo info{};
    info.sType = VK_STRUCTURE_TYPE_INSTANCE_CREATE_INFO;
    info.pApplicationInfo = &app;
    VulkanInstance instance;
    if (!create || create(&info, nullptr, &instance.handle) != VK_SUCCESS)
        return -1;
    instance.destroy = reinterpret_cast<PFN_vkDestroyInstance>(getProc(instance.handle, "vkDestroyInstance"));
    const auto enumerate = reinterpret_cast<PFN_vkEnumeratePhysicalDevices>(
        getProc(instance.handle, "vkEnumeratePhysicalDevices"));
    const auto properties = reinterpret_cast<PFN_vkGetPhysicalDeviceProperties>(
        getProc(instance.handle, "vkGetPhysicalDeviceProperties"));
    uint32_t count = 0;
    if (!enumerate || !properties || enumerate(instance.handle, &count, nullptr) != VK_SUCCESS || count == 0)
        return -1;
    std::vector<VkPhysicalDevice> devices(count);
    if (enumerate(instance.handle, &count, devices.data()) != VK_SUCCESS)
        return -1;
    for (uint32_t i = 0; i < count; ++i) {
        VkPhysicalDeviceProperties props{};
        properties(devices[i], &props);
        if (props.deviceType == VK_PHYSICAL_DEVICE_TYPE_CPU)
            return int(i);
    }
    return -1;
}
#endif

} // namespace

bool exposeSoftwareVulkanDevice()
{
#ifdef DICTORA_HAS_VULKAN
    static bool exposed = false;
    static std::once_flag once;
    std::call_once(once, [] {
        if (qEnvironmentVariableIsSet("GGML_VK_VISIBLE_DEVICES"))
            return; // the user's own choice stands
        const int index = softwareVulkanDeviceIndex();
        if (index >= 0)
            exposed = qputenv("GGML_VK_VISIBLE_DEVICES", QByteArray::number(index));
    });
    return exposed;
#else
    return false;
#endif
}

QList<ComputeDevice> availableComputeDevices()
{
    if (speechDevicePreferenceFromEnvironment(SpeechDevicePreference::automatic) == SpeechDevicePreference::software)
        exposeSoftwareVulkanDevice();
    // The portable build's back-ends are modules: none is listed before they load.
    loadGgmlBackends();
    QList<ComputeDevice> devices;
    const size_t count = ggml_backend_dev_count();
    for (size_t i = 0; i < count; ++i) {
        ggml_backend_dev_t handle = ggml_backend_dev_get(i);
        if (!handle)
            continue;
        ComputeDevice device;
        switch (ggml_backend_dev_type(handle)) {
        case GGML_BACKEND_DEVICE_TYPE_CPU:
            device.kind = ComputeDevice::Kind::cpu;
            break;
        case GGML_BACKEND_DEVICE_TYPE_GPU:
            device.kind = ComputeDevice::Kind::gpu;
            break;
        case GGML_BACKEND_DEVICE_TYPE_IGPU:
            device.kind = ComputeDevice::Kind::integratedGpu;
            break;
        case GGML_BACKEND_DEVICE_TYPE_ACCEL:
            device.kind = ComputeDevice::Kind::accelerator;
            break;
        default:
            device.kind = ComputeDevice::Kind::other;
            break;
        }
        if (const char *name = ggml_backend_dev_name(handle))
            device.name = QString::fromUtf8(name);
        if (const char *description = ggml_backend_dev_description(handle))
            device.description = QString::fromUtf8(description).trimmed();
        devices.append(device);
    }
    return devices;
}

} // namespace dictora
