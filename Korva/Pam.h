#pragma once
// The abstract packet access point. Its attributes and notifications are generated from
// models/Korva/Pam.mox; the receive entry points are written in Pam.cpp.

#include <Korva/Pam.mox.h>
