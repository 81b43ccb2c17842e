#include "platform/kernel/driver_loader.h"

#include "platform/kernel/io.h"
#include "platform/kernel/system_keys.h"
#include "platform/machine.h"

#include <algorithm>
#include <map>
#include <memory>
#include <mutex>
#include <optional>

namespace platform {

namespace {

/// Of a loaded driver. kUnloadPending: as soon as no device of it is open; kUnloading: somebody is
/// at it.
enum class Stage { kLoaded, kUnloadPending, kUnloading };

struct LoadedDriver {
    DriverImage image;
    ObjectRef<DRIVER_OBJECT> object;
    std::map<std::uint32_t, std::size_t> blocksBefore;  ///< by pool tag, before it was loaded
    Stage stage = Stage::kLoaded;
};

struct Loader {
    std::mutex lock;
    std::vector<std::shared_ptr<LoadedDriver>> drivers;  ///< in the order of loading
};

Loader& TheLoader() {
    static Loader loader;
    return loader;
}

thread_local constinit const DriverImage* runningImage = nullptr;

/// Marks the image whose code the host thread runs.
class RunningImage {
public:
    explicit RunningImage(const DriverImage& image) { runningImage = &image; }
    ~RunningImage() { runningImage = nullptr; }
    RunningImage(const RunningImage&) = delete;
    RunningImage& operator=(const RunningImage&) = delete;
};

std::shared_ptr<LoadedDriver> FindByName(Loader& loader, std::u16string_view name) {
    for (const auto& driver : loader.drivers) {
        if (EqualIgnoringCase(driver->image.name, name)) return driver;
    }
    return nullptr;
}

std::map<std::uint32_t, std::size_t> CountBlocks(const std::vector<std::uint32_t>& tags) {
    std::map<std::uint32_t, std::size_t> blocks;
    for (const std::uint32_t tag : tags) {
        blocks[tag] = QueryPoolUsage(tag).blocks;
    }
    return blocks;
}

struct PoolLeak {
    std::uint32_t tag;
    std::string message;
};

/// What the driver has left allocated, if anything; the first of its tags.
std::optional<PoolLeak> FindPoolLeak(const LoadedDriver& driver) {
    for (const auto& [tag, before] : driver.blocksBefore) {
        const std::size_t now = QueryPoolUsage(tag).blocks;
        if (now <= before) continue;
        return PoolLeak{tag, "driver " + ToUtf8(driver.image.name) + " left " +
                                 std::to_string(now - before) + " blocks behind"};
    }
    return std::nullopt;
}

/// The caller holds nothing any more that stopping the machine would leave behind.
void Report(std::optional<PoolLeak> leak) {
    if (leak && VerifierEnabled()) {
        Violation(Rule::kPoolLeaked, std::move(leak->message), nullptr, leak->tag);
    }
}

NTSTATUS CallEntry(const DriverImage& image, DRIVER_OBJECT* driver) {
    const std::u16string path = ServiceKeyPath(image.name);
    // Exactly as long as the path, so that reading on to a terminator is found out.
    const std::vector<char16_t> characters(path.begin(), path.end());
    UNICODE_STRING registryPath = Describe({characters.data(), characters.size()});
    const RunningImage running(image);
    const CallbackCheck check("DriverEntry");
    return image.entry(driver, &registryPath);
}

/// Calls the driver's unload routine and lets go of it; its stage is kUnloading.
void Unload(std::shared_ptr<LoadedDriver> driver) {
    {
        const ThreadScope system(SystemProcess());
        const RunningImage running(driver->image);
        const CallbackCheck check("DriverUnload");
        driver->object->DriverUnload(driver->object.get());
    }
    {
        Loader& loader = TheLoader();
        const std::lock_guard guard(loader.lock);
        std::erase(loader.drivers, driver);
    }
    DeleteDriverObject(driver->object.release());
    std::optional<PoolLeak> leak = FindPoolLeak(*driver);
    driver.reset();
    Report(std::move(leak));
}

/// Takes the unload of a driver whose unload is pending upon the caller; one caller gets it.
bool ClaimUnload(LoadedDriver& driver) {
    const std::lock_guard guard(TheLoader().lock);
    if (driver.stage != Stage::kUnloadPending) return false;
    driver.stage = Stage::kUnloading;
    return true;
}

}  // namespace

NTSTATUS LoadDriverImage(const DriverImage& image) {
    if (image.entry == nullptr) return STATUS_DRIVER_ENTRYPOINT_NOT_FOUND;
    if (IsDriverLoaded(image.name)) return STATUS_OBJECT_NAME_COLLISION;
    const ThreadScope system(SystemProcess());
    const NTSTATUS keyStatus = MakeServiceKey(image.name);
    if (!NT_SUCCESS(keyStatus)) return keyStatus;

    auto driver = std::make_shared<LoadedDriver>();
    driver->image = image;
    driver->blocksBefore = CountBlocks(image.poolTags);
    driver->object = ObjectRef<DRIVER_OBJECT>::Adopt(CreateDriverObject(image.name));
    driver->object->DriverInit = image.entry;
    const NTSTATUS status = CallEntry(driver->image, driver->object.get());
    if (!NT_SUCCESS(status)) {
        DeleteDriverObject(driver->object.release());
        std::optional<PoolLeak> leak = FindPoolLeak(*driver);
        driver.reset();
        Report(std::move(leak));
        return status;
    }
    FinishDriverInitialization(driver->object.get());
    Loader& loader = TheLoader();
    const std::lock_guard guard(loader.lock);
    loader.drivers.push_back(std::move(driver));
    return status;
}

NTSTATUS UnloadDriverImage(std::u16string_view name) {
    Loader& loader = TheLoader();
    std::shared_ptr<LoadedDriver> driver;
    ObjectRef<DRIVER_OBJECT> object;  // the unload may happen elsewhere while we look at it
    {
        const std::lock_guard guard(loader.lock);
        driver = FindByName(loader, name);
        if (driver == nullptr || driver->stage == Stage::kUnloading ||
            driver->object->DriverUnload == nullptr) {
            return STATUS_INVALID_DEVICE_REQUEST;
        }
        driver->stage = Stage::kUnloadPending;
        object = driver->object;
    }
    if (!PrepareDriverUnload(object.get()) || !ClaimUnload(*driver)) return STATUS_DEVICE_BUSY;
    object = {};
    Unload(std::move(driver));
    return STATUS_SUCCESS;
}

void OnDriverDevicesClosed(DRIVER_OBJECT* object) {
    Loader& loader = TheLoader();
    std::shared_ptr<LoadedDriver> driver;
    {
        const std::lock_guard guard(loader.lock);
        for (const auto& candidate : loader.drivers) {
            if (candidate->object.get() == object) driver = candidate;
        }
    }
    if (driver != nullptr && ClaimUnload(*driver)) {
        QueueSystemWork([driver] { Unload(driver); });
    }
}

bool IsDriverLoaded(std::u16string_view name) {
    Loader& loader = TheLoader();
    const std::lock_guard guard(loader.lock);
    return FindByName(loader, name) != nullptr;
}

std::vector<std::u16string> LoadedDrivers() {
    Loader& loader = TheLoader();
    const std::lock_guard guard(loader.lock);
    std::vector<std::u16string> names;
    for (const auto& driver : loader.drivers) {
        names.push_back(driver->image.name);
    }
    std::reverse(names.begin(), names.end());
    return names;
}

void ForgetDrivers() {
    runningImage = nullptr;
    Loader& loader = TheLoader();
    const std::lock_guard guard(loader.lock);
    for (const auto& driver : loader.drivers) {
        AbandonDriver(driver->object.get());
    }
    // Their objects stay, also beyond the end of the host process's statics: devices that the
    // stopped driver has not deleted refer to them.
    static auto& forgotten = *new std::vector<std::shared_ptr<LoadedDriver>>;
    forgotten.insert(forgotten.end(), loader.drivers.begin(), loader.drivers.end());
    loader.drivers.clear();
}

bool LoadingImageIsIntegrityChecked() {
    return runningImage == nullptr || runningImage->integrityChecked;
}

}  // namespace platform
