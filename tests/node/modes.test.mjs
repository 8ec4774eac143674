import assert from 'node:assert/strict';
import { getEventListeners } from 'node:events';
import { mkdtempSync } from 'node:fs';
import { tmpdir } from 'node:os';
import path from 'node:path';
import { AsyncLocalStorage } from 'node:async_hooks';
import test from 'node:test';
import * as vision from '@velmora/vision';
import { flowContext, makePage, png, records, response, serveModel, site } from './support.mjs';

const click = { action: 'click', x_ratio: 0.5, y_ratio: 0.25 };
const success = { action: 'declare_success' };
const imgMeta = { widthCss: 1000, heightCss: 500, dpr: 2, capturedAt: 1.5 };

test('results are frozen, in camel case, with the caller\'s data as it was', async () => {
  const { client, requests, close } = await serveModel(click);
  const context = { ...flowContext, own_key: { snake_case: 1 } };
  const result = await client.ask(png, { imgMeta, flowContext: context, prompt: 'find it', highStakes: true });
  assert.ok(Object.isFrozen(result));
  assert.deepEqual([result.xRatio, result.nextExpectedState, result.text, result.modelUsed], [0.5, 'done', null, 'heavy']);
  assert.equal(requests[0].model, 'heavy');

  const shot = await client.screenshot(makePage());
  assert.ok(png.equals(shot.image));
  assert.deepEqual([shot.imgMeta.widthCss, shot.imgMeta.heightCss, shot.imgMeta.dpr], [1000, 500, 1]);

  const record = await vision.observeOnly(makePage(), { ...site, vision: client, domGroundTruth: { true_x_ratio: 0.5 } });
  assert.deepEqual(record, { ts: record.ts, runId: 'run-1', hotspotId: 'share-dialog', phase: 2, agent: 'acme',
    source: 'dom_success', vision: record.vision, domGroundTruth: { true_x_ratio: 0.5 } });
  assert.equal(record.vision.xRatio, 0.5);
  assert.equal(records().at(-1).vision.x_ratio, 0.5);

  const { metrics } = client;
  assert.deepEqual([metrics.callCount, metrics.totalInputTokens, metrics.byModel], [2, 20, { heavy: 1, light: 1 }]);
  client.resetMetrics();
  assert.equal(client.metrics.callCount, 0);
  close();
});

test('a mission', async () => {
  const { client, close } = await serveModel(click, { action: 'type', text: 'grüße 🙂' }, success);
  const page = makePage({ viewportSize: () => null });
  let asked = 0;
  const verdict = await vision.actLoop(page, { ...site, vision: client, missionPrompt: 'Share it.',
    shouldAbort: () => ++asked > 5 });
  assert.equal(verdict.action, 'declare_success');
  assert.deepEqual(page.done, [['click', 640, 200], ['type', 'grüße 🙂', page.done[1][2]]]);
  assert.ok(page.done[1][2].delay > 0);
  assert.equal(asked, 3);
  assert.equal((await vision.actLoop(page, { ...site, vision: client, shouldAbort: async () => true })).action,
    'escalate_to_cua');
  close();
});

test('what the host\'s functions return and throw comes back as the very same', async () => {
  const { client, close } = await serveModel({ action: 'escalate_to_cua' });
  const options = { ...site, vision: client };
  const fallback = { flowContext, vision: client };
  const page = makePage();
  const cyclic = { text: 'x'.repeat(300) };
  cyclic.self = cyclic;
  assert.equal(await vision.shadowObserveThenCua(page, () => cyclic, options), cyclic);
  assert.equal(records().at(-1).cua.text_head, 'x'.repeat(200));
  assert.equal((await vision.withVisionFallback(page, async () => cyclic, fallback)).value, cyclic);

  const frozen = Object.freeze(new TypeError('frozen'));
  const hostile = { get name() { throw 1; } };
  for (const thrown of [new RangeError('agent'), frozen, 'a text', undefined, 7n, hostile]) {
    const fail = () => { throw thrown; };
    for (const call of [() => vision.shadowObserveThenCua(page, fail, options),
      () => vision.withVisionFallback(page, fail, fallback),
      () => vision.withVisionFallback(page, () => { throw new Error('step'); }, { ...fallback, cuaFallback: fail })]) {
      assert.equal(await call().then(assert.fail, (error) => error), thrown);
    }
    if (thrown instanceof RangeError) assert.equal(thrown._kx_cua_origin, true);
  }

  const agent = { text: 'done' };
  const outcome = await vision.withVisionFallback(page, () => { throw new Error('no such selector'); },
    { ...fallback, cuaFallback: (given, context, reason) => {
      assert.equal(given, page);
      assert.match(context.context_hint, /no such selector/);
      assert.equal(reason, 'seen');
      return agent;
    } });
  assert.deepEqual(outcome, { way: 'agent', value: agent });
  close();
});

test('a page\'s faults are the steps\' failures, or come back as they were', async () => {
  const { client, close } = await serveModel(click);
  for (const [faults, says] of [
    [{ screenshot: async () => 'no bytes' }, /TypeError: page.screenshot\(\) must resolve to a Buffer/],
    [{ viewportSize: () => 7n }, /TypeError: .*BigInt/],
    [{ click: async () => { throw new (class AgentError2 extends Error {})('covered'); } }, /AgentError: covered/],
  ]) {
    const verdict = await vision.actLoop(makePage(faults), { ...site, vision: client });
    assert.equal(verdict.action, 'escalate_to_cua');
    assert.match(verdict.reason, says);
  }
  const execute = (result) => (page) => vision.executeAction(page, result, imgMeta);
  for (const [name, call] of Object.entries({
    screenshot: (page) => client.screenshot(page),
    viewportSize: (page) => client.act(page, { flowContext }),
    click: execute({ action: 'click', xRatio: 0, yRatio: 0 }),
    wheel: execute({ action: 'scroll' }),
    type: execute({ action: 'type', text: 'a' }),
    press: execute({ action: 'key', key: 'a' }),
  })) {
    const mine = new RangeError(name);
    for (const fault of [() => { throw mine; }, () => ({ then: (_, reject) => { reject(mine); reject(new Error('twice')); } })]) {
      assert.equal(await call(makePage({ [name]: fault })).then(assert.fail, (error) => error), mine);
    }
  }
  close();
});

test('a signal ends a call wherever it waits, with its reason', async () => {
  const hanging = await serveModel(undefined);
  const acting = await serveModel(click);
  const reached = [];
  const late = []; // answers that come after the end
  let stop;
  let reason;
  const hang = (name, value) => () => {
    reached.push(name);
    stop.abort(reason);
    return new Promise((resolve) => late.push(() => resolve(value)));
  };
  const at = (name, value) => makePage({ [name]: hang(name, value) });
  const look = (name, value) => (options) => vision.actLoop(at(name, value), { ...options, vision: acting.client });
  const act = (name, result) => ({ signal }) => vision.executeAction(at(name), result, imgMeta, { signal });
  const hooked = new vision.VisionClient({ create: async () => response(click), onAction: hang('onAction') });
  const calls = {
    screenshot: look('screenshot', png),
    viewportSize: look('viewportSize', null),
    evaluate: look('evaluate', 2),
    click: act('click', { action: 'click', xRatio: 0, yRatio: 0 }),
    wheel: act('wheel', { action: 'scroll' }),
    type: act('type', { action: 'type', text: 'a' }),
    press: act('press', { action: 'key', key: 'a' }),
    create: (options) => vision.observeOnly(makePage(), { ...options, vision: new vision.VisionClient({ create: hang('create', response(click)) }) }),
    onAction: (options) => vision.observeOnly(makePage(), { ...options, vision: hooked }),
    shouldAbort: (options) => vision.actLoop(makePage(), { ...options, vision: acting.client, shouldAbort: hang('shouldAbort', true) }),
    cuaFn: (options) => vision.shadowObserveThenCua(makePage(), hang('cuaFn'), { ...options, vision: acting.client }),
    primaryFn: ({ signal }) => vision.withVisionFallback(makePage(), hang('primaryFn'), { flowContext, signal, vision: acting.client }),
    cuaFallback: ({ signal }) => vision.withVisionFallback(at('click'), assert.fail,
      { flowContext, signal, vision: new vision.VisionClient({ create: async () => response({ action: 'escalate_to_cua' }) }), cuaFallback: hang('cuaFallback') }),
    model: ({ signal }) => {
      hanging.asked().then(hang('model'));
      return hanging.client.ask(png, { imgMeta, flowContext, signal });
    },
  };
  for (const [name, call] of Object.entries(calls)) {
    stop = new AbortController();
    reason = new Error(name);
    assert.equal(await call({ ...site, signal: stop.signal }).then(assert.fail, (error) => error), reason);
    assert.equal(getEventListeners(stop.signal, 'abort').length, 0);
  }
  for (const answer of late) answer();
  assert.deepEqual(reached, Object.keys(calls));

  const { signal } = new AbortController();
  await vision.observeOnly(makePage(), { ...site, vision: acting.client, signal });
  assert.equal(getEventListeners(signal, 'abort').length, 0);
  await assert.rejects(vision.observeOnly(makePage(), { ...site, signal: AbortSignal.abort(reason) }), reason);
  hanging.close();
  acting.close();
});

test('wrong arguments are named as the caller named them', async () => {
  const { client, close } = await serveModel(success);
  const page = makePage();
  for (const [call, says] of [
    [() => vision.actLoop(page, { flowContext, vision: client }), /^actLoop: hotspotId is required/],
    [() => vision.actLoop(page, { ...site, maxSteps: 'x', vision: client }), /^actLoop: maxSteps must be an integer, not "x"/],
    [() => vision.actLoop(page, { ...site, maxStep: 1, vision: client }), /^actLoop: unknown option "maxStep"/],
    [() => vision.actLoop(page, { ...site, run_id: 'r', vision: client }), /^actLoop: unknown option "run_id"/],
    [() => vision.actLoop(page, { ...site, vision: {} }), /^actLoop: vision must be a VisionClient/],
    [() => vision.actLoop({ screenshot() {} }, site), /^actLoop: page.evaluate is not a function: this is not a page/],
    [() => vision.actLoop(page, { ...site, signal: 'x' }), /^actLoop: signal must be an AbortSignal/],
    [() => client.ask('png', { imgMeta, flowContext }), /^an image must be a Buffer or a Uint8Array/],
    [() => client.ask(png, { imgMeta: { ...imgMeta, dpr: undefined }, flowContext }), /^imgMeta: dpr is required/],
    [() => client.ask(png, { imgMeta, flowContext, timeoutS: NaN }), /^ask: timeoutS must be finite/],
    [() => vision.executeAction(page, { action: 'click' }, imgMeta), /^click action requires xRatio \+ yRatio/],
    [async () => new vision.VisionClient({ callBudgets: 1 }), /unknown option "callBudgets"/],
    [async () => vision.setModelRegistry({ lightModel: 'other', heavyModel: 'heavy' }), /are in use already \(light, heavy\)/],
  ]) {
    await assert.rejects(call, (error) => says.test(error.message) || assert.fail(error.message));
  }
  close();
});

test('a client of the host\'s own model, its hook, its budget and its errors', async () => {
  class RateLimitError extends Error {}
  const seen = [];
  const requests = [];
  const storage = new AsyncLocalStorage();
  const client = new vision.VisionClient({
    callBudget: 1,
    create: async (request) => {
      requests.push(request);
      if (requests.length === 1) throw new (class extends RateLimitError {})('slow down');
      return response(success);
    },
    onAction: async (result, context) => { seen.push(result.action, context); throw new Error('of the hook'); },
  });
  const options = { imgMeta, flowContext };
  assert.equal((await client.ask(png, options)).action, 'declare_success');
  assert.equal(requests.length, 2); // once more after the RateLimitError
  assert.deepEqual(seen, ['declare_success', flowContext]);
  const spent = await client.ask(png, options).then(assert.fail, (error) => error);
  assert.ok(spent instanceof vision.BudgetExceeded && spent instanceof vision.VisionError);
  assert.deepEqual([spent.name, spent.kind], ['BudgetExceeded', 'BudgetExceeded']);
  await storage.run('mine', () => vision.shadowObserveThenCua(makePage(), () => assert.equal(storage.getStore(), 'mine'),
    { ...site, vision: client }));
});

test('a cassette answers without the model', async () => {
  const cassette = mkdtempSync(path.join(tmpdir(), 'cassette-'));
  const recording = new vision.VisionClient({ create: async () => response(success), cassette });
  const options = { imgMeta, flowContext };
  await recording.ask(png, options);
  assert.throws(() => new vision.VisionClient({ cassette, cassetteMode: 'some' }), /once, newEpisodes or all, not "some"/);
  new vision.VisionClient({ cassette: `${cassette}-new`, cassetteMode: 'newEpisodes', create: async () => response(success) });
  const replay = new vision.VisionClient({ cassette, cassetteMode: 'none' });
  assert.equal((await replay.ask(png, options)).action, 'declare_success');
  assert.match((await replay.ask(png, options)).reason, /CassetteMiss: .* recorded 1 times and is asked once more/);
});

test('log lines reach the host', async () => {
  const { client, close } = await serveModel(success);
  const line = new Promise((resolve) => vision.setLog((...given) => resolve(given)));
  await client.act(makePage(), { flowContext });
  const [level, text] = await line;
  assert.equal(level, 'info');
  assert.match(text, /^vision: action=declare_success/);
  vision.setLog(() => {}, { level: 'error' });
  close();
});
