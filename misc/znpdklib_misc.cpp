#include "znpdklib.h"

/* ---- Outage marks, procedure wrapper, record clearing, sequence flags ---- */

/* (outage, procedure wrapper, record clearing and sequence flags go here) */

/* ---- BoB alarm LED and redundancy recovery ------------------------------ */

/* (alarm LED and redundancy recovery go here) */
