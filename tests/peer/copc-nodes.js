// Reads a COPC file with the npm package copc (an independent COPC reader, decoding with
// laz-perf) and writes what it finds, node by node, as text: the octree's cube, then for each
// node of the hierarchy (walked from the root page, in key order) a line "node D-X-Y-Z COUNT",
// then a line a point: X Y Z as the records' integers, intensity, return number, number of
// returns, classification, GPS time, red, green, blue, near infrared (0 where the format has
// none). The tests compare it with the same text made by our reader.
//
//   node copc-nodes.js PEER_DIR IN.copc.laz OUT.txt

const fs = require('fs');
const path = require('path');

function keyOrder(a, b) {
    const pa = a.split('-').map(Number);
    const pb = b.split('-').map(Number);
    for (let i = 0; i < 4; ++i) {
        if (pa[i] !== pb[i])
            return pa[i] - pb[i];
    }
    return 0;
}

async function main() {
    const [moduleDir, input, output] = process.argv.slice(2);
    const { Copc } = require(path.join(moduleDir, 'node_modules', 'copc'));
    const copc = await Copc.create(input);
    const { scale, offset, pointDataRecordFormat } = copc.header;
    const lines = [];
    const cube = copc.info.cube.map((v) => v.toFixed(6)).join(' ');
    lines.push(`cube ${cube} spacing ${copc.info.spacing.toFixed(6)}`);
    // Every page, from the root.
    const nodes = {};
    const pages = [copc.info.rootHierarchyPage];
    while (pages.length > 0) {
        const page = pages.pop();
        const subtree = await Copc.loadHierarchyPage(input, page);
        Object.assign(nodes, subtree.nodes);
        for (const key of Object.keys(subtree.pages))
            pages.push(subtree.pages[key]);
    }
    const integer = (v, axis) => Math.round((v - offset[axis]) / scale[axis]);
    for (const key of Object.keys(nodes).sort(keyOrder)) {
        const node = nodes[key];
        lines.push(`node ${key} ${node.pointCount}`);
        if (node.pointCount === 0)
            continue;
        const view = await Copc.loadPointDataView(input, copc, node);
        const get = (name) => (view.dimensions[name] ? view.getter(name) : () => 0);
        const [x, y, z] = [get('X'), get('Y'), get('Z')];
        const fields = ['Intensity', 'ReturnNumber', 'NumberOfReturns', 'Classification'].map(get);
        const time = get('GpsTime');
        const colours = ['Red', 'Green', 'Blue', 'Infrared'].map(get);
        for (let i = 0; i < view.pointCount; ++i) {
            const values = [integer(x(i), 0), integer(y(i), 1), integer(z(i), 2)];
            for (const f of fields)
                values.push(f(i));
            values.push(time(i).toFixed(6));
            for (const c of colours)
                values.push(c(i));
            lines.push(values.join(' '));
        }
    }
    fs.writeFileSync(output, lines.join('\n') + '\n');
    process.stdout.write(`format ${pointDataRecordFormat}, ${Object.keys(nodes).length} nodes\n`);
}

main().catch((error) => {
    process.stderr.write(`copc-nodes: ${error && error.message ? error.message : error}\n`);
    process.exit(1);
});
