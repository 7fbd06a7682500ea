#pragma once

#include <zr/zrbroker.h>
#include <zr/zrmodulecore.h>
