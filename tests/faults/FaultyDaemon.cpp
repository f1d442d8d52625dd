#include "tests/faults/FaultyDaemon.h"

#include <cstdlib>
#include <filesystem>
#include <new>
#include <stdexcept>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

using faults::Plan;

bool IsLongForm()
{
    return getenv("RUVEL_TORTURE") != nullptr;
}

FaultInjection::FaultInjection()
{
    const std::string file = directory_.Path() + "/plan";
    const int descriptor = open(file.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (descriptor < 0 || ftruncate(descriptor, sizeof(Plan)) != 0)
        throw std::runtime_error("unable to make " + file);
    void* const shared = mmap(nullptr, sizeof(Plan), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    close(descriptor);
    if (shared == MAP_FAILED)
        throw std::runtime_error("unable to map " + file);
    plan_ = new (shared) Plan{};
}

FaultInjection::~FaultInjection()
{
    munmap(plan_, sizeof(Plan));
}

void FaultInjection::Count()
{
    Fail(faults::Place::Daemon, 0, 0, 0);
}

void FaultInjection::Fail(faults::Place place, std::size_t kind, long number, int error)
{
    plan_->isArmed = false;
    for (auto& counts : plan_->counts)
        for (auto& count : counts)
            count = 0;
    plan_->place = place;
    plan_->kind = kind;
    plan_->number = number;
    plan_->error = error;
    plan_->hasFailed = false;
    plan_->isArmed = true;
}

long FaultInjection::CountOf(faults::Place place, std::size_t kind) const
{
    return plan_->counts[static_cast<std::size_t>(place)][kind];
}

std::unique_ptr<DaemonUnderTest> FaultInjection::StartDaemon(DaemonOptions options)
{
    const auto library = std::filesystem::read_symlink("/proc/self/exe").parent_path() / RUVEL_FAULT_LIBRARY;
    // The sanitizers ask to be loaded first; behind a library that only passes calls on they do as well.
    options.environment = {"LD_PRELOAD=" + library.string(),
                           std::string(faults::PlanVariable) + "=" + directory_.Path() + "/plan",
                           "ASAN_OPTIONS=verify_asan_link_order=0"};
    return std::make_unique<DaemonUnderTest>(options);
}
