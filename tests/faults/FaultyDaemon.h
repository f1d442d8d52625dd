#pragma once

#include <memory>

#include "tests/faults/FaultPlan.h"
#include "tests/system/DaemonUnderTest.h"

/** Whether this run may take hours and is to leave nothing out. */
bool IsLongForm();

/** The plan of the daemons that are started under it. It fails nothing until it is armed. */
class FaultInjection
{
public:
    FaultInjection();
    FaultInjection(const FaultInjection&) = delete;
    FaultInjection& operator=(const FaultInjection&) = delete;
    ~FaultInjection();

    faults::Plan* operator->() { return plan_; }

    /** Everything is counted from here on, and nothing fails. */
    void Count();
    /** The `number`-th call from here on fails. */
    void Fail(faults::Place place, std::size_t kind, long number, int error);
    void Disarm() { plan_->isArmed = false; }
    long CountOf(faults::Place place, std::size_t kind) const;

    /** With the library loaded into it. */
    std::unique_ptr<DaemonUnderTest> StartDaemon(DaemonOptions options = {});

private:
    TestDirectory directory_;
    faults::Plan* plan_;
};
