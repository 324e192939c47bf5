// Reads a local GGUF file with the npm package @huggingface/gguf, a reader
// independent of ours, and prints its header, metadata and tensor infos as
// JSON on stdout, for cross_check.py to compare with what gguf_gen wrote.
//
//   node read_gguf.mjs --modules DIR FILE.gguf
//
// DIR is the directory holding node_modules/@huggingface/gguf (an npm
// --prefix); without --modules the package is looked up as usual.
//
// Output: {"version", "tensor_count", "kv_count", "tensor_data_offset",
// "parameter_count", "metadata": [{"key", "type", "element_type"?,
// "value"}], "tensors": [{"name", "n_dims", "shape", "type_id", "offset"}]}
// in file order. Every BigInt (64-bit counts, sizes, offsets and u64/i64
// values) is printed as a decimal string; type names are those of gguf_gen's
// --expect (u8 ... f64).
import { createRequire } from "node:module";
import { join, resolve } from "node:path";

const TYPE_NAMES = ["u8", "i8", "u16", "i16", "u32", "i32", "f32", "bool", "string", "array", "u64", "i64", "f64"];
// Entries the package adds to its metadata object that are not file keys.
const HEADER_ENTRIES = new Set(["version", "tensor_count", "kv_count"]);

function usage(message) {
  process.stderr.write(`read_gguf: ${message}\nusage: node read_gguf.mjs [--modules DIR] FILE.gguf\n`);
  process.exit(2);
}

let modules = null;
let file = null;
const args = process.argv.slice(2);
for (let i = 0; i < args.length; i++) {
  if (args[i] === "--modules") {
    if (i + 1 >= args.length) usage("--modules wants a directory");
    modules = args[++i];
  } else if (file === null) {
    file = args[i];
  } else {
    usage(`unexpected argument '${args[i]}'`);
  }
}
if (file === null) usage("no file given");

// createRequire resolves the package from DIR the way Node resolves any
// dependency, through the package's own "exports" map.
const require = createRequire(join(resolve(modules ?? process.cwd()), "read_gguf.cjs"));
let lib;
try {
  lib = require("@huggingface/gguf");
} catch (err) {
  process.stderr.write(`read_gguf: cannot load @huggingface/gguf from ${modules ?? "the default path"}: ${err.message}\n`);
  process.exit(3);
}

const plain = (value) => {
  if (typeof value === "bigint") return value.toString();
  if (Array.isArray(value)) return value.map(plain);
  return value;
};

let parsed;
try {
  // allowLocalFile reads a path on disk instead of fetching a URL;
  // typedMetadata gives each key's GGUF value type (and an array's element
  // type); computeParametersCount sums the tensor shapes.
  parsed = await lib.gguf(resolve(file), { allowLocalFile: true, typedMetadata: true, computeParametersCount: true });
} catch (err) {
  process.stderr.write(`read_gguf: ${file}: ${err.message}\n`);
  process.exit(1);
}

const { metadata, typedMetadata, tensorInfos, tensorDataOffset, parameterCount } = parsed;
const out = {
  version: metadata.version,
  tensor_count: plain(metadata.tensor_count),
  kv_count: plain(metadata.kv_count),
  tensor_data_offset: plain(tensorDataOffset),
  parameter_count: parameterCount,
  metadata: [],
  tensors: [],
};
for (const [key, entry] of Object.entries(typedMetadata)) {
  if (HEADER_ENTRIES.has(key)) continue;
  const item = { key, type: TYPE_NAMES[entry.type] ?? `unknown ${entry.type}` };
  if (entry.subType !== undefined) item.element_type = TYPE_NAMES[entry.subType] ?? `unknown ${entry.subType}`;
  item.value = plain(entry.value);
  out.metadata.push(item);
}
for (const t of tensorInfos) {
  out.tensors.push({ name: t.name, n_dims: t.n_dims, shape: plain(t.shape), type_id: t.dtype, offset: plain(t.offset) });
}
process.stdout.write(JSON.stringify(out) + "\n");
