// Orn: from a module's path and addresses to what a person reads. Includes every public header.
#ifndef ORN_ORN_H
#define ORN_ORN_H

#include "orn/address.h"
#include "orn/address_mapping.h"
#include "orn/buffer.h"
#include "orn/comp_unit_details.h"
#include "orn/debug_info_loader.h"
#include "orn/demangler.h"
#include "orn/file_format_loader.h"
#include "orn/iterator.h"
#include "orn/line_table.h"
#include "orn/lock.h"
#include "orn/module_image.h"
#include "orn/module_symbol_bank.h"
#include "orn/object.h"
#include "orn/opt_report.h"
#include "orn/ranges.h"
#include "orn/scope.h"
#include "orn/section_data.h"
#include "orn/source.h"
#include "orn/stack_frame_context.h"
#include "orn/status.h"
#include "orn/symbol.h"
#include "orn/symbol_file.h"
#include "orn/symbol_manager.h"
#include "orn/symbol_table.h"
#include "orn/types.h"
#include "orn/version.h"

#endif
