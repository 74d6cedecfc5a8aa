#pragma once

#include "domain/unique_fd.h"
