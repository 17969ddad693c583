#pragma once
// Namespace names and the two small entities that publish them to other agents; their
// shape is in models/Korva/Netns.mox.

#include <Korva/Netns.mox.h>
