@0xe2f7c8d41a6b5093;

struct One {
  number @0 :UInt32;
}

struct Ten {
  n0 @0 :UInt32;
  t1 @1 :Text;
  b2 @2 :Data;
  n3 @3 :UInt32;
  t4 @4 :Text;
  b5 @5 :Data;
  n6 @6 :UInt32;
  t7 @7 :Text;
  b8 @8 :Data;
  n9 @9 :UInt32;
}

struct Hundred {
  branches @0 :List(Ten);
}
