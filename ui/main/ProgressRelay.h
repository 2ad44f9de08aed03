#pragma once
#include "operations/ProgressRelay.h"
