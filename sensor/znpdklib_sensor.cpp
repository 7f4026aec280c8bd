#include "znpdklib.h"
