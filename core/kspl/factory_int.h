// factory_int.h - the object-manager class factory.
#pragma once
#include "kspl_internal.h"

// The static factory record, for the life of the module.
extern CFInstance IOmClassFactory;

// Answers IID_IUnknown and IID_IClassFactory with the static factory;
// pThis may be null (class-object lookup).
KSSTATUS OMFactoryQueryInterface(void* pThis, const GUID* pIId, void** ppInterface);
