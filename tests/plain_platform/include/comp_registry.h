#include "plain.h"
