#include "connections/UserNames.h"

#include "support/Account.h"

int UserNames::AreSame(const QORUnicodeString& a, const QORUnicodeString& b)
{
    QORUnicodeString first = Accounts::WithoutDomain(a);
    QORUnicodeString second = Accounts::WithoutDomain(b);
    first.ToLower();
    second.ToLower();
    return first == second ? 1 : 0;
}
