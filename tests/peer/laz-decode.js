// Decodes a LAZ file with laz-perf (the LAZ reference decoder compiled to WebAssembly) and
// writes its point records, as stored, to a file: the independent decoder of the tests and the
// benchmark. Prints the seconds the decoding took (the file already in memory): with RUNS, the
// best of that many decodings in the same process, as the benchmark times its own decoder.
//
//   node laz-decode.js LAZPERF_DIR IN.laz OUT.records [RUNS]

const fs = require('fs');
const path = require('path');

async function main() {
    const [moduleDir, input, output, runsText] = process.argv.slice(2);
    const runs = Math.max(1, Number(runsText) || 1);
    const { createLazPerf } = require(path.join(moduleDir, 'node_modules', 'laz-perf'));
    const lazPerf = await createLazPerf();
    const bytes = fs.readFileSync(input);
    const filePointer = lazPerf._malloc(bytes.length);
    lazPerf.HEAPU8.set(bytes, filePointer);
    let best = Infinity;
    let records;
    let count = 0;
    let length = 0;
    for (let run = 0; run < runs; ++run) {
        const reader = new lazPerf.LASZip();
        const started = process.hrtime.bigint();
        reader.open(filePointer, bytes.length);
        count = reader.getCount();
        length = reader.getPointLength();
        records = Buffer.alloc(count * length);
        const pointPointer = lazPerf._malloc(length);
        for (let i = 0; i < count; ++i) {
            reader.getPoint(pointPointer);
            records.set(lazPerf.HEAPU8.subarray(pointPointer, pointPointer + length), i * length);
        }
        best = Math.min(best, Number(process.hrtime.bigint() - started) / 1e9);
        reader.delete();
        lazPerf._free(pointPointer);
    }
    lazPerf._free(filePointer);
    fs.writeFileSync(output, records);
    process.stdout.write(`${count} points of ${length} bytes in ${best} s\n`);
}

main().catch((error) => {
    process.stderr.write(`laz-decode: ${error && error.message ? error.message : error}\n`);
    process.exit(1);
});
