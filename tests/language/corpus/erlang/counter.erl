-module(counter).
-export([start/0, increment/1, value/1]).

start() ->
    spawn(fun() -> loop(0) end).

increment(Pid) ->
    Pid ! {increment, self()},
    receive
        {ok, N} -> N
    after 1000 ->
        timeout
    end.

value(Pid) ->
    Pid ! {value, self()},
    receive {ok, N} -> N end.

loop(N) ->
    receive
        {increment, From} -> From ! {ok, N + 1}, loop(N + 1);
        {value, From} -> From ! {ok, N}, loop(N)
    end.
