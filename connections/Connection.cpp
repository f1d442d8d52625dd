#include "connections/Connection.h"

#include <climits>

#include "support/BaseString.h"

void Connection::SetBeginLifeTime(const long& seconds)
{
    beginTime_ = seconds;
    if (BaseString::CreateFormatedDate(beginDate_, beginTime_) == -1)
        beginDate_ = "ErrorDate";
}

int Connection::IsEndOfLife(const long& now) const
{
    if (lifeTimeOut_ <= 0 || beginTime_ <= 0)
        return 0;
    const long instant = now > 0 ? now : BaseString::GetTimeInSec();
    // Both are above 0, so that the difference cannot overflow as begin + time-out could.
    return instant - beginTime_ > lifeTimeOut_ ? 1 : 0;
}

long Connection::GetEndOfLife() const
{
    if (lifeTimeOut_ <= 0 || beginTime_ <= 0 || lifeTimeOut_ >= LONG_MAX - beginTime_)
        return 0;
    return beginTime_ + lifeTimeOut_ + 1;
}
