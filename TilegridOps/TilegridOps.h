#pragma once

/// Everything: the host's classes, the tile tree, and all nodes.
#include "TilegridOps/host/fields.h"
#include "TilegridOps/host/geometry.h"
#include "TilegridOps/host/logger.h"
#include "TilegridOps/host/object.h"
#include "TilegridOps/host/ost_object.h"
#include "TilegridOps/host/runtime.h"
#include "TilegridOps/nodes/construction.h"
#include "TilegridOps/nodes/property.h"
#include "TilegridOps/nodes/query.h"
#include "TilegridOps/substrate/accessor.h"
#include "TilegridOps/substrate/channel_services.h"
#include "TilegridOps/substrate/commands.h"
#include "TilegridOps/substrate/element_moves.h"
#include "TilegridOps/substrate/element_types.h"
#include "TilegridOps/substrate/parallel.h"
#include "TilegridOps/substrate/traversal.h"
