// vision for Node: a model that looks at a page's screenshot and proposes one action.
//
// Everything runs beside the JavaScript thread. A call in flight keeps the process alive;
// a library without one does not. Each worker has its own runtime: its default client and
// its clients, and the API key's resolver, are not shared with other threads.
//
// Errors. A wrong argument is a TypeError, or a VisionError of kind "invalid_argument"
// that names the option. What a function or a page of the caller's throws comes back as
// the very same object, where it comes back at all. With `signal`, a call rejects with the
// signal's reason once it has let go of everything: from then on it calls nothing of the
// caller's. A call that had ended by then keeps its ending.

/**
 * What the library needs of a page. Playwright's Page has it. Coordinates and deltas are
 * CSS pixels.
 *
 * The library calls one function at a time and waits for the answer, but not after a time
 * limit or the signal. A rejection is the step's failure.
 */
export interface BrowserPage {
  /** PNG. The bytes must stay as they are, and not be transferred, until the call ends. */
  screenshot(options: { fullPage?: boolean; type?: 'png' }): Promise<Uint8Array>;
  /** The value of an expression in the main frame. */
  evaluate(expression: string): Promise<unknown>;
  /** Null counts as 1280 x 800. */
  viewportSize(): { width: number; height: number } | null;
  readonly mouse: {
    click(x: number, y: number): Promise<unknown>;
    wheel(deltaX: number, deltaY: number): Promise<unknown>;
  };
  readonly keyboard: {
    type(text: string, options: { delay: number }): Promise<unknown>;
    press(key: string): Promise<unknown>;
  };
}

/** A page of the caller's, or one of a Chromium that the library drives. */
export type Page = BrowserPage | ChromiumPage;

/**
 * What the model is told besides the picture. It sees ten keys, all optional, and two of
 * them choose the model together with `attempts`: the heavy one answers when `phase` is 0,
 * for some workflows, and from the second attempt on. Any other key is the caller's own.
 */
export interface FlowContext {
  workflow_name?: unknown;
  phase?: unknown;
  current_step?: unknown;
  last_action?: unknown;
  expected_outcome?: unknown;
  attempts?: unknown;
  platform?: unknown;
  context_hint?: unknown;
  forbidden_actions?: unknown;
  success_signals?: unknown;
  [key: string]: unknown;
}

export type Action =
  | 'click' | 'type' | 'key' | 'scroll' | 'wait'
  | 'declare_success' | 'declare_failure' | 'escalate_to_cua';

/** Where a result comes from: the last ten are `actLoop`'s own verdicts. */
export type Cause =
  | 'model_answer' | 'call_timed_out' | 'transport_error' | 'unexpected_error' | 'no_tool_call'
  | 'step_cap' | 'aborted' | 'repeated_proposal' | 'uncertain_action' | 'uncertain_success'
  | 'read_only' | 'step_timed_out' | 'step_failed' | 'budget_exhausted' | 'action_failed';

/** One proposed action, or the verdict of a mission. Frozen. */
export interface ActionResult {
  readonly action: Action | (string & {});
  readonly reason: string;
  /** 0 to 1. */
  readonly confidence: number;
  readonly nextExpectedState: string;
  /** Of the viewport's width, 0 to 1; as all below null where the action has none. */
  readonly xRatio: number | null;
  readonly yRatio: number | null;
  readonly text: string | null;
  readonly key: string | null;
  /** Of the viewport's height; positive scrolls down. */
  readonly scrollDyRatio: number | null;
  readonly durationMs: number | null;
  readonly lowConfidence: boolean;
  readonly modelUsed: string;
  readonly latencyMs: number;
  readonly inputTokens: number;
  readonly outputTokens: number;
  readonly cause: Cause;
}

/** What a screenshot shows. `capturedAt` is in seconds since 1970. */
export interface ImgMeta {
  readonly widthCss: number;
  readonly heightCss: number;
  readonly dpr: number;
  readonly capturedAt: number;
}

export interface Cancellable {
  signal?: AbortSignal;
}

interface ModeOptions extends Cancellable {
  flowContext: FlowContext;
  /** The client to ask; by default `defaultClient()`. */
  vision?: VisionClient;
  /** Asks the heavy model. False by default. */
  highStakes?: boolean;
}

export interface ObserverOptions extends ModeOptions {
  /** The name of the place in the pipeline, for the record. */
  hotspotId: string;
  /** The name of the run, for the record. */
  runId?: string;
}

export interface ActLoopOptions extends ObserverOptions {
  /** What is to be achieved, as one would write it for an agent. */
  missionPrompt?: string;
  /** 8 by default. */
  maxSteps?: number;
  /** Looks only, and hands over instead of acting. False by default. */
  readOnly?: boolean;
  /** Asked before every step: true ends the mission. Anything else lets it go on. */
  shouldAbort?: () => boolean | Promise<boolean>;
}

/**
 * Pursues a mission on the page, step by step, and resolves to the verdict:
 * declare_success, declare_failure or escalate_to_cua, with the reason. A failure of the
 * page, the model or the budget is a verdict, too. Writes a record per step and a final one.
 */
export function actLoop(page: Page, options: ActLoopOptions): Promise<ActionResult>;

export interface FallbackOptions<Agent> extends ModeOptions {
  /** Runs when vision could not help. Gets the context with the failure, and why. */
  cuaFallback?: (page: Page, context: FlowContext, reason: string) => Agent | Promise<Agent>;
}

/** The step's value, from its first run or, "rescued", its second; vision's declare_success;
 *  or what the agent returned. */
export type FallbackOutcome<Primary, Agent> =
  | { readonly way: 'step'; readonly value: Primary }
  | { readonly way: 'rescued'; readonly value: Primary }
  | { readonly way: 'verdict'; readonly value: ActionResult }
  | { readonly way: 'agent'; readonly value: Agent };

/**
 * Runs a scripted step. When it fails, vision looks at the page once: it acts and the step
 * runs again, or it declares success, or the agent gets its turn. So the step must stand a
 * second run. Rejects with the step's error when there is no agent, with what the second
 * run, the action, the screenshot or the agent throws, and with BudgetExceeded.
 */
export function withVisionFallback<Primary, Agent = never>(
  page: Page, primaryFn: () => Primary | Promise<Primary>, options: FallbackOptions<Agent>,
): Promise<FallbackOutcome<Primary, Agent>>;

/**
 * Runs the agent and, at the same time, asks vision once about the same screen, for the
 * record. Resolves to the agent's value, or rejects with its error, on which
 * `_kx_cua_origin` is set to true.
 */
export function shadowObserveThenCua<Agent>(
  page: Page, cuaFn: () => Agent | Promise<Agent>, options: ObserverOptions,
): Promise<Agent>;

export interface ObserveOptions extends ObserverOptions {
  /** What the step really did, for the record. */
  domGroundTruth?: Record<string, unknown>;
}

/** A record as it went into the log: frozen, and camelCase but for the caller's data. */
export interface ObservationRecord {
  readonly ts: string;
  readonly runId: string | null;
  readonly hotspotId: string;
  readonly phase: unknown;
  readonly agent: unknown;
  readonly source: 'dom_success';
  readonly vision: Readonly<Record<string, unknown>>;
  readonly domGroundTruth: Readonly<Record<string, unknown>>;
}

/** Asks vision once, acts on nothing, and writes a record. */
export function observeOnly(page: Page, options: ObserveOptions): Promise<ObservationRecord>;

/** The same with nobody waiting: what goes wrong with the call itself is a process warning. */
export function observeInBackground(page: Page, options: ObserveOptions): void;

/** Carries out one action. Of the result only the action and what belongs to it matters. */
export function executeAction(
  page: Page, result: Pick<ActionResult, 'action'> & Partial<ActionResult>, imgMeta: ImgMeta, options?: Cancellable,
): Promise<void>;

export interface VisionClientOptions {
  /** By default that of the registry's `resolveApiKey`, else ANTHROPIC_API_KEY. */
  apiKey?: string;
  /** The light model by default. */
  defaultModel?: string;
  /** Calls until `resetMetrics()`; 50 by default. */
  callBudget?: number;
  /** ANTHROPIC_BASE_URL, else https://api.anthropic.com, by default. */
  baseUrl?: string;
  /** False by default: http is for this machine only. */
  allowPlainHttp?: boolean;
  /** A PEM file of the authorities to trust instead of the system's. */
  caFile?: string;
  /** 10 by default. */
  connectTimeoutS?: number;
  /** 1 MiB by default. */
  maxResponseBytes?: number;
  /**
   * A folder to which the requests are recorded, or from which they are answered, by
   * `cassetteMode`. No key is needed where nothing is recorded. docs/replay.md says what matches.
   */
  cassette?: string;
  /** "once" by default. */
  cassetteMode?: 'none' | 'once' | 'newEpisodes' | 'all';
  /** False by default: a request is answered by an equal one only. */
  cassetteByOrder?: boolean;
  /** Sees each answer before the call goes on, which waits for it. Its error is logged. */
  onAction?: (result: ActionResult, flowContext: FlowContext) => unknown;
  /**
   * The way to the model instead of HTTPS: gets the request of the Messages API and
   * resolves to the response. Errors of classes named APIConnectionError, APITimeoutError,
   * RateLimitError or InternalServerError, and those derived from them, are tried once more.
   */
  create?: (request: Record<string, unknown>) => Promise<unknown>;
}

interface QuestionOptions extends Cancellable {
  flowContext: FlowContext;
  prompt?: string;
  highStakes?: boolean;
  /** Of the whole call; KX_VISION_TIMEOUT_S, else 20, by default. */
  timeoutS?: number;
}

export interface AskOptions extends QuestionOptions {
  imgMeta: ImgMeta;
  /** Tries once more when the transport fails. True by default. */
  transportRetry?: boolean;
}

export interface VisionMetrics {
  readonly callCount: number;
  readonly totalInputTokens: number;
  readonly totalOutputTokens: number;
  readonly latenciesMs: readonly number[];
  readonly failuresByReason: Readonly<Record<string, number>>;
  readonly byModel: Readonly<Record<string, number>>;
  /** In milliseconds. */
  readonly p95: number;
  readonly estimatedCostUsd: number;
}

/** Asks the model and counts the calls. */
export class VisionClient {
  /** Throws a VisionError without a registry or a key, and for an option it cannot use. */
  constructor(options?: VisionClientOptions);
  /** Asks about a PNG. What goes wrong on the way is a declare_failure. */
  ask(image: Uint8Array, options: AskOptions): Promise<ActionResult>;
  /** Asks about the page as it is now. */
  act(page: Page, options: QuestionOptions): Promise<ActionResult>;
  screenshot(
    page: Page, options?: Cancellable & { fullPage?: boolean },
  ): Promise<{ readonly image: Buffer; readonly imgMeta: ImgMeta }>;
  /** As it stands now, frozen. */
  get metrics(): VisionMetrics;
  /** Empties the metrics, and with them the budget. */
  resetMetrics(): void;
}

/** The client that modes use which are given none; made by the first use. */
export function defaultClient(): VisionClient;
/** Empties its metrics, and with them its budget. To be called between two runs. */
export function resetDefaultMetrics(): void;

/**
 * Names the models, once per process and before the first client; with the same names it
 * may be called again. `resolveApiKey` is called when a client is made, and returns the key
 * at once; when it throws or returns anything else, ANTHROPIC_API_KEY is asked.
 */
export function setModelRegistry(registry: {
  lightModel: string;
  heavyModel: string;
  resolveApiKey?: () => string;
}): void;

/** What the pipeline is to use vision for, from KX_VISION_TIER as it stands now. */
export function isVisionEnabled(): 'off' | 'shadow' | 'tier2' | 'tier3';

/** How many records, and how many fixtures, the process could not write. */
export function shadowLogLosses(): number;
export function fixtureLosses(): number;

export type LogLevel = 'debug' | 'info' | 'warning' | 'error';
/**
 * Sends the library's log lines of the level, "info" by default, and above to a function,
 * for the whole process: of several threads, the last that has set one gets them. Null takes
 * this thread's back; without any, the lines go to standard error.
 */
export function setLog(log: ((level: LogLevel, line: string) => void) | null, options?: { level?: LogLevel }): void;

/** An error of the library's own. `kind` names it: "invalid_argument", "PageClosedError". */
export class VisionError extends Error {
  constructor(kind: string, message: string);
  readonly kind: string;
}
/** The client's call budget is used up. */
export class BudgetExceeded extends VisionError {}

/** A page that the library drives without JavaScript in between. */
export class ChromiumPage {
  private constructor();
  readonly targetId: string;
  readonly mouse: BrowserPage['mouse'];
  readonly keyboard: {
    type(text: string, options?: { delay?: number }): Promise<void>;
    press(key: string): Promise<void>;
  };
  navigate(url: string, options?: Cancellable): Promise<void>;
  evaluate(expression: string, options?: Cancellable): Promise<unknown>;
  close(): Promise<void>;
}

export interface ChromiumPageOptions extends Cancellable {
  /** Faster and larger screenshots. True by default. */
  optimizeForSpeed?: boolean;
}

/** A Chromium. One that was launched ends with close(), or with this object. */
export class ChromiumBrowser {
  private constructor();
  newPage(options?: ChromiumPageOptions & {
    width?: number; height?: number; devicePixelRatio?: number;
  }): Promise<ChromiumPage>;
  attach(targetId: string, options?: ChromiumPageOptions): Promise<ChromiumPage>;
  pages(options?: Cancellable): Promise<readonly { readonly targetId: string; readonly url: string; readonly title: string }[]>;
  close(): Promise<void>;
}

export function launchChromium(options?: Cancellable & {
  executable?: string; headless?: boolean; arguments?: string[]; launchTimeoutS?: number; commandTimeoutS?: number;
}): Promise<ChromiumBrowser>;

export function connectChromium(
  url: string, options?: Cancellable & { commandTimeoutS?: number; allowRemote?: boolean },
): Promise<ChromiumBrowser>;

export const version: string;
