#pragma once

// Every public class of the library.

#include "zel/field/field.h"
#include "zel/field/math.h"
#include "zel/field/node.h"
#include "zel/field/scalar_field.h"
#include "zel/field/type_name.h"
#include "zel/field/vector_field.h"
#include "zel/procedural/shapes.h"
#include "zel/scalar/arithmetic.h"
#include "zel/scalar/powers.h"
#include "zel/scalar/selection.h"
#include "zel/scalar/spatial.h"
#include "zel/scalar/transcendental.h"
#include "zel/vector/arithmetic.h"
#include "zel/vector/powers.h"
#include "zel/vector/projection.h"
#include "zel/vector/selection.h"
#include "zel/vector/spatial.h"
