// The OpenRPC document of a real tuqvu with the behavior manager ("rpc.discover"),
// checked against the OpenRPC meta-schema with Ajv: every registered method is there,
// with its description, its parameters by position and a schema for every type; and
// "ZRBroker.describeModule" gives a module's description.
//
//   node openrpc.test.mjs --tuqvu build/bin/tuqvu --module build/lib/libzrbehaviormanager.so \
//        --out build/browser
// Exits with status 0 when every expectation held, 1 otherwise.
import assert from 'node:assert/strict';
import path from 'node:path';
import jsonSchemaMetaModule from '@json-schema-tools/meta-schema';
import metaSchemaModule from '@open-rpc/meta-schema';
import Ajv from 'ajv';

import { parseArgs, rpc, startTuqvuIn } from './support/broker.mjs';

async function main() {
  const options = parseArgs(process.argv.slice(2));
  const tuqvu = await startTuqvuIn(path.join(options.out, 'openrpc'), options);
  try {
    const document = await rpc(tuqvu.port, 'rpc.discover');

    // The OpenRPC meta-schema describes its schemas with the JSON Schema meta-schema of
    // json-schema.tools; both use draft-07's keywords under their own $schema.
    const withoutDialect = (module) => {
      const schema = { ...(module.default ?? module) };
      delete schema.$schema;
      return schema;
    };
    const ajv = new Ajv({ strict: false, allErrors: true, validateFormats: false });
    // Referred to both with and without the trailing slash.
    for (const id of ['https://meta.json-schema.tools/', 'https://meta.json-schema.tools']) {
      const jsonSchemaMeta = withoutDialect(jsonSchemaMetaModule);
      delete jsonSchemaMeta.$id;
      ajv.addSchema(jsonSchemaMeta, id);
    }
    const validate = ajv.compile(withoutDialect(metaSchemaModule));
    assert.ok(validate(document), `not an OpenRPC document: ${ajv.errorsText(validate.errors)}`);

    const names = document.methods.map((method) => method.name);
    assert.equal(new Set(names).size, names.length, 'a method is listed twice');
    for (const name of ['ZRBroker.getModules', 'ZRBroker.getMethods', 'ZRBroker.describeModule',
                        'ZRMemory.getData', 'ZRBehaviorManager.runBehavior']) {
      assert.ok(names.includes(name), `${name} is missing`);
    }
    // Every method a module registered is described, with its parameters.
    for (const module of await rpc(tuqvu.port, 'ZRBroker.getModules')) {
      const forms = await rpc(tuqvu.port, 'ZRBroker.getMethods', [module]);
      for (const method of forms) {
        const listed = document.methods.find((entry) => entry.name === `${module}.${method.name}`);
        assert.ok(listed, `${module}.${method.name} is missing`);
        assert.ok(listed.params.length >= method.parameters.length,
                  `${module}.${method.name} lacks parameters`);
        // A name with several forms is described by one of them.
        const descriptions = forms.filter((form) => form.name === method.name)
                                  .map((form) => form.description);
        if (method.description) assert.ok(descriptions.includes(listed.description));
      }
    }
    const run = document.methods.find((method) => method.name === 'ZRBehaviorManager.runBehavior');
    assert.equal(run.paramStructure, 'by-position');
    assert.deepEqual(run.params[0].schema, { type: 'string' });
    assert.equal(run.params[0].required, true);
    const installed =
        document.methods.find((method) => method.name === 'ZRBehaviorManager.getInstalledBehaviors');
    assert.deepEqual(installed.result.schema, { type: 'array', items: { type: 'string' } });

    const described = await rpc(tuqvu.port, 'ZRBroker.describeModule', ['ZRBehaviorManager']);
    assert.equal(described.name, 'ZRBehaviorManager');
    assert.match(described.description, /manage behaviors/);
    assert.ok(described.methods.some((method) => method.name === 'runBehavior'));
    // getModules keeps its answer: names only.
    assert.ok((await rpc(tuqvu.port, 'ZRBroker.getModules')).every((name) => typeof name === 'string'));

    assert.equal(await tuqvu.stop(), 0);
    console.log('openrpc: every expectation held');
  } catch (error) {
    tuqvu.kill();
    console.error(tuqvu.log());
    throw error;
  }
}

main().catch((error) => {
  console.error(error);
  process.exit(1);
});
