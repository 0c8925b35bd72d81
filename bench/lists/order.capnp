@0xd7c1b0a4e35f9826;

using Cxx = import "/capnp/c++.capnp";
$Cxx.namespace("tq_bench::capnp_schema");

struct Order {
  price @0 :Int32;
  quantity @1 :Int32;
  warehouse @2 :Int32;
  customerId @3 :Int64;
  orderedAtMs @4 :Int64;
  article @5 :Text;
  remark @6 :Text;
  digestOfItem @7 :Data;
}

struct Nested {
  inner @0 :Nested;
  order @1 :Order;
}

struct Integers {
  values @0 :List(Int32);
}

struct Texts {
  values @0 :List(Text);
}
