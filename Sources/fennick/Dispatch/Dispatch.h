#pragma once
// The dispatch layer: queues, the main queue, groups, once, time and sources.
#include "fennick/Dispatch/Blocking.h"
#include "fennick/Dispatch/Block.h"
#include "fennick/Dispatch/Group.h"
#include "fennick/Dispatch/Main.h"
#include "fennick/Dispatch/Once.h"
#include "fennick/Dispatch/QoS.h"
#include "fennick/Dispatch/Queue.h"
#include "fennick/Dispatch/Ref.h"
#include "fennick/Dispatch/Source.h"
#include "fennick/Dispatch/Time.h"
