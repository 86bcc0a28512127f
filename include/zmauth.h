// Everything libzmauth offers, in one include.
#ifndef ZMAUTH_H
#define ZMAUTH_H

#include "authdata.h"
#include "zmkerberos.h"
#include "zmldap.h"
#include "zmlogging.h"
#include "zmlogin.h"

#endif // ZMAUTH_H
