#pragma once
#include "faults.h"
