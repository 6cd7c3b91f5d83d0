#pragma once
// Umbrella header: the whole public interface of Fennick.
#include "fennick/Version.h"
