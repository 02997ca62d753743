@0x938ca2c4855d0b0e;

using Cxx = import "/capnp/c++.capnp";
$Cxx.namespace("bench::cp");

struct ServiceElement {
  sip @0 :UInt32;
  sipMask @1 :UInt32;
  dip @2 :UInt32;
  dipMask @3 :UInt32;
  sport @4 :UInt16;
  sportMask @5 :UInt16;
  dport @6 :UInt16;
  dportMask @7 :UInt16;
  protocol @8 :UInt8;
}

struct Label {
  ethType @0 :UInt16;
  encapFlag @1 :UInt32;
  encapTunnelSip @2 :UInt32;
  encapTunnelDip @3 :UInt32;
  label @4 :Data;
}

# A repeat holds the id of the earlier match alone.
struct Match {
  opMode @0 :UInt32;
  id @1 :UInt16;
  preMatchId @2 :UInt16;
  union {
    repeat @3 :Void;
    service @4 :List(ServiceElement);
    label @5 :Label;
    etherProtocol @6 :UInt16;
    acl @7 :Data;
  }
}

struct L2Redirect {
  vrf @0 :UInt32;
  rTableId @1 :UInt32;
  dip @2 :UInt32;
  smac @3 :UInt64;
  dmac @4 :UInt64;
  destIf @5 :UInt32;
}

struct L3Redirect {
  vrf @0 :UInt32;
  rTableId @1 :UInt32;
  sip @2 :UInt32;
  dip @3 :UInt32;
}

struct Redirect {
  encapFlag @0 :UInt32;
  insertLabel @1 :UInt32;
  label @2 :Data;
  etype @3 :UInt16;
  union {
    l2 @4 :L2Redirect;
    l3 @5 :L3Redirect;
  }
}

struct NatRewrite {
  srcIp @0 :UInt32;
  dstIp @1 :UInt32;
  srcPort @2 :UInt16;
  dstPort @3 :UInt16;
}

struct Action {
  opMode @0 :UInt32;
  id @1 :UInt16;
  union {
    repeat @2 :Void;
    redirect @3 :Redirect;
    natRewrite @4 :NatRewrite;
  }
}

struct MatchGroup {
  id @0 :UInt16;
  opMode @1 :UInt32;
  logicalOp @2 :UInt32;
  matches @3 :List(Match);
}

struct ActionGroup {
  id @0 :UInt16;
  opMode @1 :UInt32;
  actions @2 :List(Action);
}

struct Pair {
  id @0 :UInt16;
  opMode @1 :UInt32;
  prePairId @2 :UInt16;
  matchGroup @3 :MatchGroup;
  actionGroup @4 :ActionGroup;
}

struct Interface {
  opMode @0 :UInt32;
  direction @1 :UInt32;
  interface @2 :UInt32;
  vlan @3 :UInt16;
  vrf @4 :UInt32;
}

struct Policy {
  version @0 :UInt16;
  id @1 :UInt16;
  opMode @2 :UInt32;
  appType @3 :UInt32;
  pairs @4 :List(Pair);
  interfaces @5 :List(Interface);
}

struct Message {
  policies @0 :List(Policy);
}
