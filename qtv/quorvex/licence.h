#pragma once

// The licence state as the program sees it. The community build needs no
// activation and is always active; QUORVEX_LICENCE_INACTIVE=1 in the
// environment at start makes it report an inactive licence, so the
// not-activated paths can be exercised.
class CLicence
{
public:
    // Read once, on the first call, and fixed for the life of the process.
    static bool isActive();
};
